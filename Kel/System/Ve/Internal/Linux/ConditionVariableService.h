#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/CondVariableServiceBase.h>

#include <pthread.h>
#include <time.h>

namespace Kel::System::Ve::Internal::Linux {

/// The condition variable service on Linux.
class KEL_API ConditionVariableService final : public CondVariableServiceBase {
public:
    ConditionVariableService();
    ~ConditionVariableService() override;

    /// Destroys the condition variable; does nothing once it is done. Called by the destructor, where a failure ends
    /// the process.
    void Destroy();

    void NotifyOne() override;
    void NotifyAll() override;
    void WaitInternal(IMutexService& mutex) override;
    bool WaitForInternal(IMutexService& mutex, unsigned long timeoutMs) override;
    bool WaitUntilInternal(IMutexService& mutex, SteadyTimePoint deadline) override;
    /// `deadline` is a time of the monotonic clock.
    bool WaitUntilInternal(IMutexService& mutex, timespec& deadline);

private:
    pthread_cond_t condition;
    bool destroyed = false;
};

}  // namespace Kel::System::Ve::Internal::Linux
