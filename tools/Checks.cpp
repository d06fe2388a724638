#include "Checks.h"

#include "Attempt.h"
#include "KernelChecks.h"
#include "Machine.h"
#include "Preemption.h"
#include "Throttling.h"

#include <Kel/System/Ve/Adapters/Lockable.h>
#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Internal/Linux/LockedMemorySegment.h>
#include <Kel/System/Ve/Internal/Linux/TimerService.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>

using Kel::System::Ve::IMessageQueueService;
using Kel::System::Ve::Adapters::Lockable;
using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Internal::ServiceFactory;
using Kel::System::Ve::Internal::Linux::LockedMemorySegment;
using Kel::System::Ve::Internal::Linux::TimerService;

namespace {

using State = Finding::State;

// 0 when the file cannot be read or holds no number.
long NumberIn(const std::string& path) {
    long number = 0;
    std::ifstream(path) >> number;
    return number;
}

Finding CheckPriority(ServiceFactory& factory) {
    const unsigned int highest = 99;
    if (FailureOfThread(factory, highest, 0).empty()) {
        return {State::Good, "priorities 1 to 99"};
    }
    const auto permitted = std::clamp(static_cast<unsigned int>(Limit(RLIMIT_RTPRIO)), 1U, highest);
    const std::string failure = FailureOfThread(factory, permitted, 0);
    return failure.empty() ? Finding{State::Weak, "priorities up to " + std::to_string(permitted)}
                           : Finding{State::Missing, failure};
}

std::uint64_t LockedKilobytes() { return NumberAfter("/proc/self/status", "VmLck:"); }

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

struct Processors {
    std::vector<unsigned int> usable;
    std::vector<unsigned int> refused;
};

Processors TryProcessors(ServiceFactory& factory) {
    Processors processors;
    for (unsigned int processor = 0; processor < ProcessorCount(); ++processor) {
        const bool isUsable = FailureOfThread(factory, 0, 1U << processor).empty();
        (isUsable ? processors.usable : processors.refused).push_back(processor);
    }
    return processors;
}

Finding CheckProcessors(const Processors& processors) {
    if (processors.usable.empty()) {
        return {State::Missing, "no processor can be chosen"};
    }
    const std::string usable = "processors " + Joined(processors.usable, " ");
    return processors.refused.empty() ? Finding{State::Good, usable}
                                      : Finding{State::Weak, usable + ", but not " + Joined(processors.refused, " ")};
}

Finding CheckLatencyTarget() {
    const std::string failure = FailureOf([] { TimerService::SetLatencyTarget(); });
    if (failure.empty()) {
        return {State::Good, "the kernel takes the request to keep processors from deep sleep"};
    }
    // A kernel without the device has nothing to ask for, but the call fails all the same.
    const bool sleepsDeeply = access("/sys/devices/system/cpu/cpuidle", F_OK) == 0;
    return {sleepsDeeply ? State::Missing : State::Weak,
            failure + (sleepsDeeply ? "" : "; this kernel knows no deep sleep")};
}

Finding CheckPriorityInheritance(ServiceFactory& factory) {
    const std::string failure = FailureOf([&] {
        const auto mutex = Own(factory.CreateMutex(false));
        Lockable lockable(*mutex);
        const std::lock_guard guard(lockable);
    });
    return failure.empty()
               ? Finding{State::Good, "a mutex that lends its holder the priority of those who wait can be locked"}
               : Finding{State::Missing, failure};
}

}  // namespace

std::vector<Row> CheckMachine(ServiceFactory& factory) {
    const Processors processors = TryProcessors(factory);
    return {
        {"real-time priority", CheckPriority(factory), "CreateThread and CreateTimer with a priority, at their start",
         "/etc/security/limits.d/realtime.conf: @realtime - rtprio 99"},
        {"memory locking", CheckMemoryLocking(),
         "LockedMemorySegment and ISharedLibraryService::Load, which do not tell; mlockall",
         "/etc/security/limits.d/realtime.conf: @realtime - memlock unlimited"},
        {"message queues", CheckMessageQueues(factory), "CreateMessageQueue",
         "/etc/security/limits.d/realtime.conf: @realtime - msgqueue unlimited; "
         "/etc/sysctl.d/realtime.conf: fs.mqueue.msg_max=100"},
        {"processor set", CheckProcessors(processors), "CreateThread and CreateTimer with processors, at their start",
         "systemd unit: AllowedCPUs=0-31"},
        {"interrupts", CheckInterrupts(), "real-time threads on processors of their own",
         "the kernel's command line: isolcpus=1 nohz_full=1 rcu_nocbs=1 irqaffinity=0; until the next start, for each "
         "interrupt N: echo 0 >/proc/irq/N/smp_affinity_list"},
        {"sibling threads", CheckSiblings(), "every deadline: what one of them does slows the other down",
         "the kernel's command line: nosmt"},
        {"frequency governor", CheckFrequency(), "every deadline: a processor takes its time to become faster",
         "cpupower frequency-set -g performance"},
        {"latency device", CheckLatencyTarget(), "TimerService::SetLatencyTarget",
         "/etc/udev/rules.d/99-realtime.rules: KERNEL==\"cpu_dma_latency\", GROUP=\"realtime\", MODE=\"0660\""},
        {"preemption", CheckPreemption(), "every deadline, while another program is in a system call",
         "apt-get install linux-image-rt-amd64 (ARM: -rt-armmp or -rt-arm64); otherwise the kernel's command line: "
         "preempt=full"},
        {"real-time throttling", CheckThrottling(factory, processors.usable.empty() ? 0 : processors.usable.back()),
         "a real-time thread that does not wait: it is stopped",
         "/etc/sysctl.d/realtime.conf: kernel.sched_rt_runtime_us=-1; with the deadline server, which Linux has since "
         "6.12, for each processor N: echo 0 >/sys/kernel/debug/sched/fair_server/cpuN/runtime"},
        {"swap", CheckSwap(), "memory that is not locked: what was written to the disk is waited for",
         "swapoff -a, and no swap in /etc/fstab"},
        {"virtual machine", CheckVirtualMachine(), "every deadline: the host stops its processors when it likes",
         "a machine of one's own, or processors of the host that are the guest's alone"},
        {"clock source", CheckClockSource(), "CreateTimer, every time-out, every reading of the clock",
         "the kernel's command line: clocksource=tsc tsc=reliable (ARM: clocksource=arch_sys_counter)"},
        {"priority-inheriting locks", CheckPriorityInheritance(factory), "CreateMutex and CreateTimer",
         "a kernel built with CONFIG_FUTEX_PI=y"},
    };
}
