#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// A lock for the threads of one process that many readers or one writer can hold. All operations may be called from
/// any thread. A reader may acquire again to read; if it asks to write, it waits for itself. A writer that acquires
/// again, in either mode, gets an exception (EDEADLK), from a timed operation with whatever text `errno` has; a try
/// returns false. Readers come first: a writer waits for as long as there is always one. Priorities are not inherited.
/// None of the operations is a cancellation point, and signals do not end a wait. Nobody may hold the lock, or wait for
/// it, when it is deleted: the system does not look. What fails throws VeException.
class KEL_API IRWLockService : public virtual IServiceObject {
public:
    /// Waits until there is no writer (pthread_rwlock_rdlock).
    virtual void AcquireReadLock() = 0;

    /// Waits until there is neither reader nor writer (pthread_rwlock_wrlock).
    virtual void AcquireWriteLock() = 0;

    /// Releases what this thread holds, in whichever mode (pthread_rwlock_unlock). Only for who holds it: that is not
    /// looked at.
    virtual void ReleaseReadLock() = 0;
    /// The same as `ReleaseReadLock`.
    virtual void ReleaseWriteLock() = 0;

    /// Returns false when it would have to wait (pthread_rwlock_tryrdlock).
    virtual bool TryAcquireReadLock() = 0;
    /// Returns false when it would have to wait (pthread_rwlock_trywrlock).
    virtual bool TryAcquireWriteLock() = 0;

    /// Waits for no longer than `timeoutMs` milliseconds (0: do not wait) on the realtime clock. Returns true when
    /// acquired, false when the time ran out (pthread_rwlock_timedrdlock).
    virtual bool TimedAcquireReadLock(unsigned int timeoutMs) = 0;
    /// The same for writing (pthread_rwlock_timedwrlock).
    virtual bool TimedAcquireWriteLock(unsigned int timeoutMs) = 0;
};

}  // namespace Kel::System::Ve
