#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/RWLockServiceBase.h>

#include <pthread.h>

namespace Kel::System::Ve::Internal::Linux {

/// The read-write lock service on Linux, with the platform's preference of readers or writers.
class KEL_API RWLockService final : public RWLockServiceBase {
public:
    RWLockService();
    ~RWLockService() override;

    /// Destroys the lock; does nothing once it is done. Called by the destructor, where a failure ends the process.
    void Destroy();

    /// Releases what this thread holds: there is one unlock for both modes.
    void Unlock();

    void AcquireReadLock() override;
    void AcquireWriteLock() override;
    void ReleaseReadLock() override;
    void ReleaseWriteLock() override;
    bool TryAcquireReadLock() override;
    bool TryAcquireWriteLock() override;
    bool TimedAcquireReadLock(unsigned int timeoutMs) override;
    bool TimedAcquireWriteLock(unsigned int timeoutMs) override;

private:
    pthread_rwlock_t lock;
    bool destroyed = false;
};

}  // namespace Kel::System::Ve::Internal::Linux
