#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>

#include <pthread.h>

namespace Kel::System::Ve::Internal::Linux {

/// A condition variable for the threads of several processes, constructed in memory that they share, beside the mutex
/// that they wait with. Not a service object. Its owner calls `Destroy` once, when no process uses it any more; there
/// is no destructor. All other operations may be called from any thread of any process, and behave as those of
/// `ICondVariableService`; time is measured on the monotonic clock. When a process ends while it holds the mutex, one
/// wait may end with an exception that says so, as the mutex itself does, but with the mutex held. A process that is
/// killed while it waits counts as waiting for ever: `Destroy` would wait for it. Who goes on without it does not
/// destroy, but constructs another in its place. A mutex that is locked twice stays locked in a wait. Waits are
/// cancellation points. What fails throws VeException.
class KEL_API IpcCondVarService {
public:
    /// Makes it where it lies.
    IpcCondVarService();
    IpcCondVarService(const IpcCondVarService&) = delete;
    IpcCondVarService& operator=(const IpcCondVarService&) = delete;

    /// Ends it (pthread_cond_destroy); waits for those who wait.
    void Destroy();

    /// @{
    /// As in `ICondVariableService`.
    void NotifyOne();
    void NotifyAll();
    void Wait(IpcMutexService& mutex);
    /// @}

    /// Returns true when notified, false when `timeoutMs` milliseconds have passed.
    bool WaitFor(IpcMutexService& mutex, unsigned long timeoutMs);

private:
    pthread_cond_t condition;
};

}  // namespace Kel::System::Ve::Internal::Linux
