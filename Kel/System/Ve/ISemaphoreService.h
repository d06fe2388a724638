#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// A counting semaphore, either unnamed, for the threads of one process, or named, for all processes that know the
/// name. Whoever creates a named semaphore removes the name when deleting the object, which ends the process if
/// somebody else has removed it; those who have opened the semaphore go on using it. All operations may be called from
/// any thread. Only Wait may wait, and only Wait is a cancellation point. What fails throws VeException.
class KEL_API ISemaphoreService : public virtual IServiceObject {
public:
    /// Returns the name; empty for an unnamed semaphore.
    virtual const BasicString& GetName() const = 0;

    /// Adds one, and wakes one of those that wait (sem_post). May be called by the handler of a signal. Throws also
    /// when the count is at its highest, 2^31 - 1.
    virtual void Post() = 0;

    /// Waits until the count is above zero and takes one. `timeoutMs` is the limit in milliseconds, on the realtime
    /// clock; 0 waits without limit (sem_wait, sem_timedwait). Returns true when one was taken, false when the time ran
    /// out. Throws also when the handler of a signal interrupts the wait; one that was installed with SA_RESTART lets a
    /// wait without limit go on. A cancellation point, also when it does not wait.
    virtual bool Wait(unsigned int timeoutMs) = 0;

    /// Takes one if the count is above zero; returns false otherwise (sem_trywait).
    virtual bool TryWait() = 0;

    /// Returns the count (sem_getvalue), which may have changed by then.
    virtual int GetValue() const = 0;
};

}  // namespace Kel::System::Ve
