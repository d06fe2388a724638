#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/Linux/ConditionVariableService.h>
#include <Kel/System/Ve/Internal/Linux/MutexService.h>
#include <Kel/System/Ve/Internal/Linux/PosixThread.h>
#include <Kel/System/Ve/Internal/TimerServiceBase.h>

#include <atomic>
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

    /// The start routine of the timer's thread.
    static void* TimerThreadRun(void* launch);

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

    void Run(const Launch& launch);

    /// Returns false, and does nothing, when there is a thread that another start has left running.
    bool StartThread();

    /// Ends the thread started last, if there is one; returns its flag.
    std::shared_ptr<std::atomic<bool>> EndThread();

    MutexService mutex;
    ConditionVariableService conditionVariable;
    // Of the thread started last, which may outlive this object when its handler deletes it. Guarded by the mutex.
    std::shared_ptr<std::atomic<bool>> isRunning;
    PosixThread timerThread;
};

}  // namespace Kel::System::Ve::Internal::Linux
