#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/Linux/ConditionVariableService.h>
#include <Kel/System/Ve/Internal/Linux/MutexService.h>
#include <Kel/System/Ve/Internal/Linux/PosixThread.h>
#include <Kel/System/Ve/Internal/TimerServiceBase.h>

#include <memory>

namespace Kel::System::Ve::Internal::Linux {

/// The timer service on Linux. Its mutex and its condition variable are service objects, too.
class KEL_API TimerService final : public TimerServiceBase {
public:
    /// `microseconds` is the period.
    TimerService(unsigned int microseconds, const BasicString& timerName, unsigned int timerPriority,
                 unsigned int affinityMask);
    ~TimerService() override;

    /// Asks the kernel for the lowest wake-up latency of the processors, until the process ends. Each call keeps one
    /// file descriptor open for that. Throws VeException when /dev/cpu_dma_latency cannot be opened or written. A
    /// cancellation point.
    static void SetLatencyTarget();

    /// The start routine of the timer's thread: runs the timer that it is given, and returns null.
    static void* TimerThreadRun(void* timer);

    /// Calls the handler again and again, until the timer is stopped. Returns at once when it has not been started.
    void Run();

    /// @{
    /// As in `ITimerService`.
    void ChangeName(const BasicString& newName) override;
    void ChangePriority(unsigned int newPriority) override;
    void ChangeCpuAffinity(unsigned int mask) override;
    unsigned int GetMaxNameLength() const override { return 15; }
    void Start() override;
    void Stop() override;
    /// @}

private:
    struct Launch;

    enum class State {
        /// There is no thread.
        Stopped,
        /// The thread calls the handler.
        Started,
        /// The same, but Start has thrown: the name or the processors could not be set.
        StartFailed,
        /// The thread has been requested to end, and a Stop waits until it is joined.
        Stopping,
        /// The thread has been requested to end; whoever needs that waits until it is joined.
        Ending,
    };

    void Enter(State next);
    void RequestEnd();
    void WaitForEnd();
    std::shared_ptr<PosixThread> GetThread();

    // Guards the state and the launch.
    MutexService mutex;
    ConditionVariableService conditionVariable;
    State state = State::Stopped;
    // Of the thread that has not been joined; null when Stopped.
    std::shared_ptr<Launch> launch;
};

}  // namespace Kel::System::Ve::Internal::Linux
