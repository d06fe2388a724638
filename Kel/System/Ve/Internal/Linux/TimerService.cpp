#include <Kel/System/Ve/Internal/Linux/TimerService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/FileDescriptor.h>
#include <Kel/System/Ve/Internal/Linux/SystemCall.h>
#include <Kel/System/Ve/Internal/MutexGuard.h>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <utility>

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

// What a timer's thread works with: all of it as it was at the start.
struct TimerService::Launch {
    const unsigned int period;
    void (*const handler)(void*);
    void* const argument;
    std::atomic<bool> isRunning{true};
};

namespace {

void RefuseWhenStarted(bool isStarted) {
    if (isStarted) {
        throw VeException("{0}: Timer was started yet!", "Start");
    }
}

}  // namespace

TimerService::TimerService(unsigned int microseconds, const BasicString& timerName, unsigned int timerPriority,
                           unsigned int affinityMask)
    : ServiceObjectBase("TimerService", ServiceType::Timer, true), TimerServiceBase(microseconds) {
    mutex.Init(false, MutexService::ProcessPrivate);
    SetName(timerName);
    SetPriority(timerPriority);
    SetCPUAffinity(affinityMask);
}

TimerService::~TimerService() {
    const CancellationDisabled disabled;
    EndThread(false);
}

void TimerService::SetLatencyTarget() {
    errno = 0;
    FileDescriptor descriptor(open("/dev/cpu_dma_latency", O_RDWR | O_CLOEXEC));
    CheckErrno(descriptor.Get(), "{0}: Could not open /dev/cpu_dma_latency: {1}");
    errno = 0;
    const std::int32_t microseconds = 0;
    if (write(descriptor.Get(), &microseconds, sizeof microseconds) > 0) {
        // Left open: the kernel keeps the request for as long.
        descriptor.Release();
        return;
    }
    ThrowFailure(errno, "{0}: Could not write 0 cpu_dma latency: {1}");
}

void TimerService::Start() {
    // Also when its own handler has stopped it: that call has not ended yet, and no other may begin.
    RefuseWhenStarted(timerThread.IsCurrent());
    do {
        // A thread that was stopped by its own handler, or that runs on after a start that failed.
        EndThread(true);
    } while (!StartThread());
}

bool TimerService::StartThread() {
    // The new thread waits for it: its handler is not called before the start has ended, one way or the other.
    const MutexGuard untilTheEndOfTheStart(mutex);
    RefuseWhenStarted(isStarted);
    if (launch && launch->isRunning) {
        return false;
    }

    // The results are not looked at: what does not come through shows when the thread is made.
    pthread_attr_t attributes{};
    sched_param parameters{};
    pthread_attr_init(&attributes);
    pthread_attr_getschedparam(&attributes, &parameters);
    parameters.sched_priority = static_cast<int>(GetPriority());
    pthread_attr_setschedpolicy(&attributes, GetPriority() != 0 ? SCHED_FIFO : SCHED_OTHER);
    pthread_attr_setschedparam(&attributes, &parameters);
    pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);

    std::shared_ptr<Launch> newLaunch(new Launch{GetPeriod(), handler, handlerArgument});
    CheckReturnedCode(timerThread.Create(attributes, &TimerThreadRun, this),
                      "{0}: Could not create posix-thread for timer, linux error code: {1}", "Start");
    launch = std::move(newLaunch);
    pthread_attr_destroy(&attributes);
    ChangeName(GetName());
    if (GetCPUAffinity() != 0) {
        ChangeCpuAffinity(GetCPUAffinity());
    }
    isStarted = true;
    return true;
}

void TimerService::Stop() {
    {
        const MutexGuard guard(mutex);
        // Stopped by its own handler, its last call may still be in progress.
        const bool hasBeenStopped = launch && !launch->isRunning;
        if (!isStarted && !hasBeenStopped) {
            return;
        }
    }
    const std::shared_ptr<Launch> stopped = EndThread(false);
    const MutexGuard guard(mutex);
    // Unless another thread has stopped it, too, and started it again.
    if (launch == stopped) {
        isStarted = false;
    }
}

std::shared_ptr<TimerService::Launch> TimerService::EndThread(bool forStart) {
    std::shared_ptr<Launch> ended;
    unsigned int generation = 0;
    {
        const MutexGuard guard(mutex);
        RefuseWhenStarted(forStart && isStarted);
        ended = launch;
        generation = timerThread.GetGeneration();
        if (ended) {
            ended->isRunning = false;
            conditionVariable.NotifyOne();
        }
    }
    // The handler's own call cannot wait for itself.
    if (!timerThread.IsCurrent()) {
        timerThread.Join(generation);
    }
    return ended;
}

void* TimerService::TimerThreadRun(void* timer) {
    // A thread of normal priority is otherwise woken up to 50 us late, together with others.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    static_cast<TimerService*>(timer)->Run();
    return nullptr;
}

void TimerService::Run() {
    std::shared_ptr<Launch> running;
    {
        // The start has it until its end.
        const MutexGuard guard(mutex);
        running = launch;
    }
    if (!running) {
        return;
    }

    const std::int64_t nanoseconds = std::int64_t{running->period} * 1000;
    const timespec step{static_cast<time_t>(nanoseconds / 1000000000), static_cast<long>(nanoseconds % 1000000000)};
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    while (running->isRunning) {
        if (running->handler != nullptr) {
            running->handler(running->argument);
            // It may have deleted the timer.
            if (!running->isRunning) {
                return;
            }
        }
        deadline.tv_sec += step.tv_sec;
        deadline.tv_nsec += step.tv_nsec;
        if (deadline.tv_nsec > 999999999) {
            deadline.tv_nsec -= 1000000000;
            ++deadline.tv_sec;
        }
        const MutexGuard guard(mutex);
        // Looked at under the mutex, so that no stop is missed; and again when woken before the deadline without one.
        while (running->isRunning && conditionVariable.WaitUntilInternal(mutex, deadline)) {
        }
    }
}

void TimerService::ChangeName(const BasicString& newName) {
    CheckReturnedCode(timerThread.SetName(newName.c_str()),
                      "{0}: Could not set threadname of timer, linux error code: {1}");
}

void TimerService::ChangePriority(unsigned int newPriority) {
    CheckReturnedCode(timerThread.SetPriority(newPriority), "{0}: Could not change priority, linux error code: {1}");
}

void TimerService::ChangeCpuAffinity(unsigned int mask) {
    CheckReturnedCode(timerThread.SetAffinity(mask), "{0}: Could not set cpu affinity, linux error code: {1}");
}

}  // namespace Kel::System::Ve::Internal::Linux
