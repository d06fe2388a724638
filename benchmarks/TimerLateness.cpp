// How late a periodic timer calls its handler: ve-bench-timer WAY PRIORITY PROCESSOR PERIODS, where WAY is "library" or
// "bare". Writes the lateness of each period in nanoseconds. It is counted from the first call, which follows the start
// at once, in both ways.

#include "Expect.h"
#include "Factory.h"

#include <Kel/System/Ve/ITimerService.h>

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

using Kel::System::Ve::ITimerService;

namespace {

constexpr unsigned int period = 1000;
constexpr std::int64_t nanosecondsPerSecond = 1000000000;

struct Calls {
    explicit Calls(std::size_t count) : times(count) { Expect(sem_init(&complete, 0, 0) == 0); }

    std::vector<std::int64_t> times;
    std::size_t taken = 0;
    sem_t complete{};
};

std::int64_t Now() {
    timespec now;
    Expect(clock_gettime(CLOCK_MONOTONIC, &now) == 0);
    return now.tv_sec * nanosecondsPerSecond + now.tv_nsec;
}

void Handle(void* argument) {
    auto& calls = *static_cast<Calls*>(argument);
    if (calls.taken < calls.times.size()) {
        calls.times[calls.taken] = Now();
        ++calls.taken;
        if (calls.taken == calls.times.size()) {
            Expect(sem_post(&calls.complete) == 0);
        }
    }
}

void WaitUntilComplete(Calls& calls) {
    while (sem_wait(&calls.complete) != 0) {
    }
}

void RunLibrary(Calls& calls, unsigned int priority, unsigned int processor) {
    const std::unique_ptr<ITimerService> timer(
        Factory().CreateTimer(period, "bench", priority, &calls, &Handle, 1U << processor));
    timer->Start();
    WaitUntilComplete(calls);
    timer->Stop();
}

// The loop that a program has without the library. Its thread ends when all calls have been made.
void* Loop(void* argument) {
    auto& calls = *static_cast<Calls*>(argument);
    timespec deadline;
    Expect(clock_gettime(CLOCK_MONOTONIC, &deadline) == 0);
    while (calls.taken < calls.times.size()) {
        Handle(&calls);
        deadline.tv_nsec += period * 1000;
        if (deadline.tv_nsec >= nanosecondsPerSecond) {
            deadline.tv_nsec -= nanosecondsPerSecond;
            ++deadline.tv_sec;
        }
        Expect(clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == 0);
    }
    return nullptr;
}

void RunBare(Calls& calls, unsigned int priority, unsigned int processor) {
    pthread_attr_t attributes;
    const sched_param parameters{static_cast<int>(priority)};
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(processor, &processors);
    Expect(pthread_attr_init(&attributes) == 0);
    Expect(pthread_attr_setschedpolicy(&attributes, priority != 0 ? SCHED_FIFO : SCHED_OTHER) == 0);
    Expect(pthread_attr_setschedparam(&attributes, &parameters) == 0);
    Expect(pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED) == 0);
    Expect(pthread_attr_setaffinity_np(&attributes, sizeof processors, &processors) == 0);
    pthread_t thread;
    Expect(pthread_create(&thread, &attributes, &Loop, &calls) == 0);
    Expect(pthread_attr_destroy(&attributes) == 0);
    WaitUntilComplete(calls);
    Expect(pthread_join(thread, nullptr) == 0);
}

}  // namespace

int main(int count, char** arguments) {
    Expect(count == 5);
    const auto number = [arguments](int index) { return static_cast<unsigned int>(std::atoi(arguments[index])); };
    // As cyclictest does. Without the right to it, it is measured all the same.
    static_cast<void>(mlockall(MCL_CURRENT | MCL_FUTURE));
    const Runtime runtime;
    Calls calls(number(4) + std::size_t{1});
    (std::strcmp(arguments[1], "library") == 0 ? &RunLibrary : &RunBare)(calls, number(2), number(3));
    for (std::size_t i = 1; i < calls.times.size(); ++i) {
        std::printf("%lld\n", static_cast<long long>(calls.times[i] - calls.times[0] -
                                                     static_cast<std::int64_t>(i) * period * 1000));
    }
}
