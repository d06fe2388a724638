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
#include <memory>
#include <utility>

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

// The states, and all that changes them:
//
//   Start       Stopped -> Started, or StartFailed when it throws after the thread has been created
//               StartFailed -> Ending, and Ending -> Ending: waits until the thread is joined, and looks again
//               Started, Stopping: refused, and so is the handler in all states
//   Stop        Started -> Stopping, and Stopping, Ending: waits until the thread is joined
//               Started -> Ending when called by the handler, which waits in no state: it would wait for itself
//               Stopped, StartFailed: does nothing
//   deletion    any -> Ending: waits until the thread is joined, or detaches it when called by the handler
//   joined      Stopping, Ending -> Stopped
//   cancelled   Stopping -> Ending, when a Stop is cancelled while it waits
//
// As long as there is a thread that has not been joined, no other is created.

// What one start shares with its thread, which outlives the timer when the handler deletes that.
struct TimerService::Launch {
    const unsigned int period;
    void (*const handler)(void*);
    void* const argument;
    std::atomic<bool> isRunning{true};
    const std::shared_ptr<PosixThread> thread = std::make_shared<PosixThread>();
};

namespace {

// Releases a mutex while it lives.
class MutexRelease {
public:
    explicit MutexRelease(MutexService& held) : mutex(held) { mutex.Unlock(); }
    ~MutexRelease() { mutex.Lock(); }
    MutexRelease(const MutexRelease&) = delete;
    MutexRelease& operator=(const MutexRelease&) = delete;

private:
    MutexService& mutex;
};

// The results are not checked: what does not come through shows when the thread is created.
void SetAttributes(pthread_attr_t& attributes, unsigned int priority) {
    sched_param parameters{};
    pthread_attr_init(&attributes);
    pthread_attr_getschedparam(&attributes, &parameters);
    parameters.sched_priority = static_cast<int>(priority);
    pthread_attr_setschedpolicy(&attributes, priority != 0 ? SCHED_FIFO : SCHED_OTHER);
    pthread_attr_setschedparam(&attributes, &parameters);
    pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
}

void SetThreadName(PosixThread& thread, const BasicString& name) {
    CheckReturnedCode(thread.SetName(name.c_str()), "{0}: Could not set threadname of timer, linux error code: {1}",
                      "ChangeName");
}

void SetThreadAffinity(PosixThread& thread, unsigned int mask) {
    CheckReturnedCode(thread.SetAffinity(mask), "{0}: Could not set cpu affinity, linux error code: {1}",
                      "ChangeCpuAffinity");
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
    const MutexGuard guard(mutex);
    if (state == State::Stopped) {
        return;
    }
    RequestEnd();
    Enter(State::Ending);
    if (launch->thread->IsCurrent()) {
        launch->thread->Detach();
    } else {
        WaitForEnd();
    }
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

void TimerService::Enter(State next) {
    state = next;
    isStarted = next == State::Started || next == State::Stopping;
    if (next == State::Stopped) {
        launch.reset();
    }
}

void TimerService::RequestEnd() {
    launch->isRunning = false;
    conditionVariable.NotifyOne();
}

// Releases the mutex while it waits; holds it again when it returns or is cancelled.
void TimerService::WaitForEnd() {
    const std::shared_ptr<Launch> ending = launch;
    // Another thread that waits may have been faster, and even have started the timer again.
    const auto enter = [&](State next) {
        if (launch == ending) {
            Enter(next);
        }
    };
    try {
        const MutexRelease release(mutex);
        ending->thread->Join();
    } catch (...) {
        enter(State::Ending);
        throw;
    }
    enter(State::Stopped);
}

void TimerService::Start() {
    // The thread that is created waits for it, too: the handler is not called before Start has ended.
    const MutexGuard guard(mutex);
    while (state != State::Stopped) {
        if (isStarted || launch->thread->IsCurrent()) {
            throw VeException("{0}: Timer was started yet!", __func__);
        }
        RequestEnd();
        Enter(State::Ending);
        WaitForEnd();
    }

    pthread_attr_t attributes{};
    SetAttributes(attributes, GetPriority());
    std::shared_ptr<Launch> created(new Launch{GetPeriod(), handler, handlerArgument});
    CheckReturnedCode(created->thread->Create(attributes, &TimerThreadRun, this),
                      "{0}: Could not create posix-thread for timer, linux error code: {1}");
    launch = std::move(created);
    // Until all else has succeeded.
    Enter(State::StartFailed);
    pthread_attr_destroy(&attributes);
    SetThreadName(*launch->thread, GetName());
    if (GetCPUAffinity() != 0) {
        SetThreadAffinity(*launch->thread, GetCPUAffinity());
    }
    Enter(State::Started);
}

void TimerService::Stop() {
    const MutexGuard guard(mutex);
    if (state == State::Stopped || state == State::StartFailed) {
        return;
    }
    RequestEnd();
    const bool calledByHandler = launch->thread->IsCurrent();
    if (state == State::Started) {
        Enter(calledByHandler ? State::Ending : State::Stopping);
    }
    if (!calledByHandler) {
        WaitForEnd();
    }
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

std::shared_ptr<PosixThread> TimerService::GetThread() {
    const MutexGuard guard(mutex);
    return launch ? launch->thread : std::make_shared<PosixThread>();
}

void TimerService::ChangeName(const BasicString& newName) { SetThreadName(*GetThread(), newName); }

void TimerService::ChangePriority(unsigned int newPriority) {
    CheckReturnedCode(GetThread()->SetPriority(newPriority), "{0}: Could not change priority, linux error code: {1}");
}

void TimerService::ChangeCpuAffinity(unsigned int mask) { SetThreadAffinity(*GetThread(), mask); }

}  // namespace Kel::System::Ve::Internal::Linux
