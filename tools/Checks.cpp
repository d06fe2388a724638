#include "Checks.h"

#include "Machine.h"

#include <Kel/System/Ve/Adapters/Lockable.h>
#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/LockedMemorySegment.h>
#include <Kel/System/Ve/Internal/Linux/TimerService.h>

#include <sys/mman.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>

using Kel::System::Ve::IMessageQueueService;
using Kel::System::Ve::Adapters::Lockable;
using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::ServiceFactory;
using Kel::System::Ve::Internal::Linux::LockedMemorySegment;
using Kel::System::Ve::Internal::Linux::TimerService;

namespace {

using State = Finding::State;

// Returns the message of what an attempt throws; empty when it succeeds.
template <class Attempt>
std::string FailureOf(Attempt attempt) {
    try {
        attempt();
        return "";
    } catch (const VeException& exception) {
        return exception.GetMessage();
    }
}

rlim_t Limit(decltype(RLIMIT_RTPRIO) resource) {
    rlimit limit{};
    getrlimit(resource, &limit);
    return limit.rlim_cur;
}

// 0 when the file cannot be read or holds no number.
long NumberIn(const std::string& path) {
    long number = 0;
    std::ifstream(path) >> number;
    return number;
}

std::string RunThread(ServiceFactory& factory, unsigned int priority, unsigned int processors) {
    return FailureOf([&] {
        const auto thread = Own(factory.CreateThread([](void*) -> void* { return nullptr; }, nullptr, "ve-rtcheck",
                                                     priority, processors, 0));
        thread->StartThread();
        thread->Join();
    });
}

Finding CheckPriority(ServiceFactory& factory) {
    const unsigned int highest = 99;
    if (RunThread(factory, highest, 0).empty()) {
        return {State::Good, "priorities 1 to 99"};
    }
    const auto permitted = std::clamp(static_cast<unsigned int>(Limit(RLIMIT_RTPRIO)), 1U, highest);
    const std::string failure = RunThread(factory, permitted, 0);
    return failure.empty() ? Finding{State::Weak, "priorities up to " + std::to_string(permitted)}
                           : Finding{State::Missing, failure};
}

std::uint64_t LockedKilobytes() {
    std::ifstream file("/proc/self/status");
    for (std::string word; file >> word;) {
        if (word == "VmLck:") {
            std::uint64_t kilobytes = 0;
            file >> kilobytes;
            return kilobytes;
        }
    }
    return 0;
}

// The library does not tell whether memory was locked; the kernel does.
bool CanLock(std::uint32_t bytes) {
    // Only read, all of it is the one page of zeros.
    void* const memory = mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    const std::uint64_t before = LockedKilobytes();
    bool locked = false;
    {
        const LockedMemorySegment segment(memory, bytes);
        locked = LockedKilobytes() >= before + bytes / 1024;
    }
    munmap(memory, bytes);
    return locked;
}

Finding CheckMemoryLocking() {
    if (CanLock(64U << 20U)) {
        return {State::Good, "64 MiB locked"};
    }
    // With mlockall, a program under such a limit cannot even start a thread.
    if (CanLock(static_cast<std::uint32_t>(sysconf(_SC_PAGESIZE)))) {
        return {State::Missing, "no more than " + std::to_string(Limit(RLIMIT_MEMLOCK) / 1024) + " KiB"};
    }
    return {State::Missing, "not a single page could be locked"};
}

std::string MakeQueue(ServiceFactory& factory, long messages, long size) {
    return FailureOf([&] {
        const auto queue = Own(factory.CreateMessageQueue(
            "/ve-rtcheck-" + std::to_string(getpid()), IMessageQueueService::OpenMode::CreateNew,
            IMessageQueueService::Access::ReadWrite, false, messages, size));
        queue->Unlink();
    });
}

Finding CheckMessageQueues(ServiceFactory& factory) {
    const std::string limits = "/proc/sys/fs/mqueue/";
    const long messages = NumberIn(limits + "msg_max");
    const long size = NumberIn(limits + "msgsize_max");
    std::string failure = MakeQueue(factory, messages, size);
    if (failure.empty()) {
        return {State::Good, "up to " + std::to_string(messages) + " messages of " + std::to_string(size) + " bytes"};
    }
    const State state = MakeQueue(factory, 1, 64).empty() ? State::Weak : State::Missing;
    return {state, failure + " (" + std::to_string(messages) + " messages of " + std::to_string(size) + " bytes)"};
}

Finding CheckProcessors(ServiceFactory& factory) {
    std::string usable;
    std::string refused;
    for (unsigned int processor = 0; processor < ProcessorCount(); ++processor) {
        (RunThread(factory, 0, 1U << processor).empty() ? usable : refused) += ' ' + std::to_string(processor);
    }
    if (usable.empty()) {
        return {State::Missing, "no processor can be chosen"};
    }
    const std::string isolated = FirstLine("/sys/devices/system/cpu/isolated");
    return {refused.empty() ? State::Good : State::Weak,
            "processors" + usable + (refused.empty() ? "" : ", but not" + refused) +
                (isolated.empty() ? ", none isolated" : ", isolated: " + isolated)};
}

Finding CheckLatencyTarget() {
    const std::string failure = FailureOf([] { TimerService::SetLatencyTarget(); });
    if (failure.empty()) {
        return {State::Good, "processors can be kept from deep sleep"};
    }
    // A kernel without the device has nothing to ask for, but the call fails all the same.
    const bool sleepsDeeply = access("/sys/devices/system/cpu/cpuidle", F_OK) == 0;
    return {sleepsDeeply ? State::Missing : State::Weak,
            failure + (sleepsDeeply ? "" : "; this kernel knows no deep sleep")};
}

Finding CheckPreemption() {
    const std::string kernel = KernelText();
    const auto isBuilt = [&](const char* model) { return kernel.find(model) != std::string::npos; };
    if (FirstLine("/sys/kernel/realtime") == "1" || isBuilt("PREEMPT_RT")) {
        return {State::Good, "PREEMPT_RT, fully preemptible"};
    }
    if (isBuilt("PREEMPT_DYNAMIC")) {
        // The model in use is in brackets.
        const std::string models = FirstLine("/sys/kernel/debug/sched/preempt");
        if (models.empty()) {
            return {State::Weak, "PREEMPT_DYNAMIC; the model in use is told only in /sys/kernel/debug/sched/preempt"};
        }
        const bool isFull = models.find("(full)") != std::string::npos;
        return {isFull ? State::Weak : State::Missing, "PREEMPT_DYNAMIC, " + models};
    }
    return isBuilt("PREEMPT") ? Finding{State::Weak, "PREEMPT, but not in interrupts and while spinlocks are held"}
                              : Finding{State::Missing, "none within system calls"};
}

Finding CheckThrottling() {
    const std::string runtime = FirstLine("/proc/sys/kernel/sched_rt_runtime_us");
    const std::string period = FirstLine("/proc/sys/kernel/sched_rt_period_us");
    if (runtime.empty() || runtime == "-1") {
        return {State::Good, "none"};
    }
    return {runtime == "0" ? State::Missing : State::Weak,
            "real-time threads may run " + runtime + " us of each " + period + " us"};
}

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

Finding CheckPriorityInheritance(ServiceFactory& factory) {
    const std::string failure = FailureOf([&] {
        const auto mutex = Own(factory.CreateMutex(false));
        Lockable lockable(*mutex);
        const std::lock_guard guard(lockable);
    });
    return failure.empty() ? Finding{State::Good, "mutexes lend their holder the priority of those who wait"}
                           : Finding{State::Missing, failure};
}

}  // namespace

std::vector<Row> CheckMachine(ServiceFactory& factory) {
    return {
        {"real-time priority", CheckPriority(factory), "CreateThread and CreateTimer with a priority, at their start",
         "/etc/security/limits.d/realtime.conf: @realtime - rtprio 99"},
        {"memory locking", CheckMemoryLocking(),
         "LockedMemorySegment and ISharedLibraryService::Load, which do not tell; mlockall",
         "/etc/security/limits.d/realtime.conf: @realtime - memlock unlimited"},
        {"message queues", CheckMessageQueues(factory), "CreateMessageQueue",
         "/etc/security/limits.d/realtime.conf: @realtime - msgqueue unlimited; "
         "/etc/sysctl.d/realtime.conf: fs.mqueue.msg_max=100"},
        {"processor set", CheckProcessors(factory), "CreateThread and CreateTimer with processors, at their start",
         "systemd unit: AllowedCPUs=0-31; for processors of one's own the kernel's command line: isolcpus=1"},
        {"latency device", CheckLatencyTarget(), "TimerService::SetLatencyTarget",
         "/etc/udev/rules.d/99-realtime.rules: KERNEL==\"cpu_dma_latency\", GROUP=\"realtime\", MODE=\"0660\""},
        {"preemption", CheckPreemption(), "every deadline, while another program is in a system call",
         "apt-get install linux-image-rt-amd64 (ARM: linux-image-rt-armmp); otherwise the kernel's command line: "
         "preempt=full"},
        {"real-time throttling", CheckThrottling(), "a real-time thread that does not sleep: it is stopped",
         "/etc/sysctl.d/realtime.conf: kernel.sched_rt_runtime_us=-1"},
        {"clock source", CheckClockSource(), "CreateTimer, every time-out, every reading of the clock",
         "the kernel's command line: clocksource=tsc tsc=reliable (ARM: clocksource=arch_sys_counter)"},
        {"priority-inheriting locks", CheckPriorityInheritance(factory), "CreateMutex and CreateTimer",
         "a kernel built with CONFIG_FUTEX_PI=y"},
    };
}
