#include "KernelChecks.h"

#include "Machine.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <system_error>

namespace {

using State = Finding::State;
using Processors = std::set<unsigned int>;

// The different lines that this file has for the processors.
std::set<std::string> LinesOfProcessors(const std::string& file) {
    std::set<std::string> lines;
    for (unsigned int processor = 0; processor < ProcessorCount(); ++processor) {
        lines.insert(FirstLine("/sys/devices/system/cpu/cpu" + std::to_string(processor) + '/' + file));
    }
    lines.erase("");
    return lines;
}

bool Contains(const std::string& path, const std::string& text) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {}).find(text) != std::string::npos;
}

// The eighth of the times in which the processors were in some state; the sum of all processors.
std::uint64_t StolenSeconds() {
    std::ifstream file("/proc/stat");
    std::string name;
    std::uint64_t ticks = 0;
    file >> name;
    for (int i = 0; i < 8; ++i) {
        file >> ticks;
    }
    return ticks / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
}

// Of a list such as "1,4-7".
Processors ProcessorsIn(const std::string& list) {
    Processors processors;
    std::istringstream ranges(list);
    for (std::string range; std::getline(ranges, range, ',');) {
        unsigned int first = 0;
        unsigned int last = 0;
        char dash = 0;
        std::istringstream numbers(range);
        // The kernel writes "(null)" for none, too.
        if (!(numbers >> first)) {
            continue;
        }
        if (!(numbers >> dash >> last)) {
            last = first;
        }
        while (first <= last) {
            processors.insert(first++);
        }
    }
    return processors;
}

Processors KeptApart() {
    Processors processors;
    for (const char* const file : {"/sys/devices/system/cpu/isolated", "/sys/devices/system/cpu/nohz_full",
                                   "/sys/fs/cgroup/cpuset.cpus.isolated"}) {
        processors.merge(ProcessorsIn(FirstLine(file)));
    }
    return processors;
}

// Where the controller delivers the interrupt to; empty when nothing uses it.
Processors TargetsOf(const std::filesystem::path& interrupt) {
    std::error_code error;
    const auto effective = interrupt / "effective_affinity_list";
    return ProcessorsIn(
        FirstLine(std::filesystem::exists(effective, error) ? effective : interrupt / "smp_affinity_list"));
}

}  // namespace

Finding CheckClockSource() {
    timespec resolution{};
    clock_getres(CLOCK_MONOTONIC, &resolution);
    const std::string source = FirstLine("/sys/devices/system/clocksource/clocksource0/current_clocksource");
    const std::string text =
        (source.empty() ? "unknown" : source) + ", resolution " + std::to_string(resolution.tv_nsec) + " ns";
    if (resolution.tv_sec != 0 || resolution.tv_nsec > 1000) {
        return {State::Missing, text + ": timers are as coarse"};
    }
    // These are read through slow hardware.
    const bool isSlow = source == "hpet" || source == "acpi_pm" || source.empty();
    return {isSlow ? State::Weak : State::Good, text};
}

Finding CheckFrequency() {
    const std::set<std::string> governors = LinesOfProcessors("cpufreq/scaling_governor");
    if (governors.empty()) {
        return {State::Unknown, "this kernel does not set the speed; firmware or a host may"};
    }
    return {governors == std::set<std::string>{"performance"} ? State::Good : State::Weak, Joined(governors, ", ")};
}

Finding CheckVirtualMachine() {
    static constexpr struct {
        const char* file;
        const char* word;
    } signs[] = {
        {"/proc/cpuinfo", " hypervisor"},
        {"/sys/hypervisor/type", ""},
        {"/proc/device-tree/compatible", "linux,dummy-virt"},
        {"/proc/device-tree/hypervisor/compatible", ""},
        {"/sys/class/dmi/id/sys_vendor", "QEMU"},
    };
    for (const auto& sign : signs) {
        if (access(sign.file, F_OK) == 0 && Contains(sign.file, sign.word)) {
            return {State::Weak, std::string("told by ") + sign.file +
                                     "; steal time so far: " + std::to_string(StolenSeconds()) + " s"};
        }
    }
    return {State::Good, "no sign of one"};
}

Finding CheckSwap() {
    const std::uint64_t kilobytes = NumberAfter("/proc/meminfo", "SwapTotal:");
    return kilobytes == 0 ? Finding{State::Good, "none"} : Finding{State::Weak, std::to_string(kilobytes) + " KiB"};
}

Finding CheckSiblings() {
    std::set<std::string> shared;
    for (const std::string& siblings : LinesOfProcessors("topology/thread_siblings_list")) {
        if (ProcessorsIn(siblings).size() > 1) {
            shared.insert(siblings);
        }
    }
    return shared.empty() ? Finding{State::Good, "none that the kernel knows of"}
                          : Finding{State::Weak, "processors that share a core: " + Joined(shared, "; ")};
}

Finding CheckInterrupts() {
    const Processors apart = KeptApart();
    if (apart.empty()) {
        return {State::Weak, "no processor is kept for real-time threads"};
    }
    std::error_code error;
    Processors coming;
    std::filesystem::directory_iterator entries("/proc/irq", error);
    for (const auto& entry : entries) {
        const Processors targets = TargetsOf(entry);
        if (std::any_of(targets.begin(), targets.end(),
                        [&](unsigned int target) { return apart.count(target) != 0; })) {
            coming.merge(ProcessorsIn(entry.path().filename()));
        }
    }
    const std::string kept = "processors kept for real-time threads: " + Joined(apart, " ");
    if (error) {
        return {State::Unknown, kept + "; /proc/irq: " + error.message()};
    }
    return coming.empty() ? Finding{State::Good, kept + "; no interrupt comes to them"}
                          : Finding{State::Weak, kept + "; interrupts that come to them: " + Joined(coming, " ")};
}
