#pragma once

#include <Kel/Core/Export.h>

#include <pthread.h>

namespace Kel::System::Ve::Internal::Linux {

/// A POSIX mutex with priority inheritance, and the attribute it was made with: what `MutexService` and
/// `IpcMutexService` have in common. Trivial and of standard layout, so that it can lie in shared memory.
/// `Init` and `Destroy` must not race with anything. All operations throw VeException when a call fails.
class KEL_API PosixMutex {
public:
    /// `processShared` is PTHREAD_PROCESS_SHARED or PTHREAD_PROCESS_PRIVATE.
    void Init(bool recursive, int processShared);
    void Destroy();

    bool IsRecursive() const;
    void Lock();
    /// Returns 0 when acquired, -1 when the time ran out.
    int TimedLock(unsigned int timeoutMs);
    bool TryLock();
    void Unlock();

    /// For calls that wait with the mutex.
    pthread_mutex_t* GetNativeHandle() { return &mutex; }

private:
    pthread_mutex_t mutex;
    // Kept for as long as the mutex, for the type is read back from it.
    pthread_mutexattr_t attributes;
};

}  // namespace Kel::System::Ve::Internal::Linux
