#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>

#include <pthread.h>

namespace Kel::System::Ve::Internal::Linux {

/// A condition variable for the threads of several processes, constructed in memory that they share, beside the mutex
/// that they wait with. Not a service object. Its owner calls `Destroy` once, when no process uses it any more; there
/// is no destructor. All other operations may be called from any thread of any process, and behave as those of
/// `ICondVariableService`; time is measured on the monotonic clock.
class KEL_API IpcCondVarService {
public:
    IpcCondVarService();
    IpcCondVarService(const IpcCondVarService&) = delete;
    IpcCondVarService& operator=(const IpcCondVarService&) = delete;

    void Destroy();

    void NotifyOne();
    void NotifyAll();
    void Wait(IpcMutexService& mutex);
    /// Returns true when notified, false when `timeoutMs` milliseconds have passed.
    bool WaitFor(IpcMutexService& mutex, unsigned long timeoutMs);

private:
    pthread_cond_t condition;
};

}  // namespace Kel::System::Ve::Internal::Linux
