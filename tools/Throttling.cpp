#include "Throttling.h"

#include "Attempt.h"
#include "Machine.h"

#include <Kel/System/Ve/Adapters/Owned.h>

#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <sstream>
#include <utility>

using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Internal::ServiceFactory;
using std::chrono::milliseconds;

namespace {

using Clock = std::chrono::steady_clock;
using State = Finding::State;

// Twice the usual period, one of which is then in it from beginning to end.
constexpr milliseconds moment(2100);

/// A normal thread and a real-time thread want the same processor all the time.
struct Trial {
    const Clock::time_point end = Clock::now() + moment;
    /// What the normal thread has done.
    std::atomic<unsigned int> rounds{0};
    /// How long the real-time thread has stood still while the normal one ran.
    milliseconds lost{0};
};

void* RunNormally(void* argument) {
    auto& trial = *static_cast<Trial*>(argument);
    while (Clock::now() < trial.end) {
        ++trial.rounds;
    }
    return nullptr;
}

Clock::duration UsedTime() {
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

Clock::duration UnusedTime() { return Clock::now().time_since_epoch() - UsedTime(); }

void* RunInRealTime(void* argument) {
    auto& trial = *static_cast<Trial*>(argument);
    const Clock::duration unusedBefore = UnusedTime();
    const unsigned int roundsBefore = trial.rounds;
    while (Clock::now() < trial.end) {
    }
    // The host of a virtual machine takes its time, too: only the normal thread tells that this was not all.
    if (trial.rounds != roundsBefore) {
        trial.lost = std::chrono::duration_cast<milliseconds>(UnusedTime() - unusedBefore);
    }
    return nullptr;
}

milliseconds LostTime(ServiceFactory& factory, unsigned int processors) {
    Trial trial;
    const auto normal = Own(factory.CreateThread(&RunNormally, &trial, "ve-normal", 0, processors, 0));
    const auto realTime = Own(factory.CreateThread(&RunInRealTime, &trial, "ve-spin", 1, processors, 0));
    normal->StartThread();
    realTime->StartThread();
    realTime->Join();
    normal->Join();
    return trial.lost;
}

bool HasDeadlineServer() {
    const std::string servers = "/sys/kernel/debug/sched/fair_server";
    std::pair<int, int> version;
    char point = 0;
    std::istringstream(FirstLine("/proc/sys/kernel/osrelease")) >> version.first >> point >> version.second;
    return (version >= std::pair(6, 12) || access(servers.c_str(), F_OK) == 0) &&
           FirstLine(servers + "/cpu0/runtime") != "0";
}

std::string Knob() {
    const std::string runtime = "kernel.sched_rt_runtime_us=" + FirstLine("/proc/sys/kernel/sched_rt_runtime_us");
    return HasDeadlineServer() ? "/sys/kernel/debug/sched/fair_server holds here, whatever " + runtime + " says"
                               : runtime + " holds here";
}

}  // namespace

Finding CheckThrottling(ServiceFactory& factory, unsigned int processor) {
    const unsigned int processors = 1U << processor;
    if (!FailureOfThread(factory, 1, processors).empty()) {
        return {State::Unknown, "not tried, without a real-time priority; " + Knob()};
    }
    const rlim_t limit = Limit(RLIMIT_RTTIME);
    if (limit < static_cast<rlim_t>(std::chrono::microseconds(moment).count())) {
        return {State::Weak,
                "RLIMIT_RTTIME ends a process whose thread does not wait for " + std::to_string(limit) + " us"};
    }
    const milliseconds lost = LostTime(factory, processors);
    const std::string period = std::to_string(moment.count()) + " ms";
    return lost.count() == 0 ? Finding{State::Good, "none in " + period + " without a wait"}
                             : Finding{State::Weak, std::to_string(lost.count()) + " ms lost in " + period +
                                                        " without a wait; " + Knob()};
}
