#pragma once

#include <Kel/Core/Export.h>

#include <pthread.h>

namespace Kel::System::Ve::Internal::Linux {

/// A POSIX mutex with priority inheritance, and the attribute it was made with: what `MutexService` and
/// `IpcMutexService` have in common. Trivial and of standard layout, so that it can lie in shared memory.
/// `Init` and `Destroy` must not race with anything. All operations throw VeException when a call fails.
/// One that processes share is robust: when a thread or process ends while it holds the mutex, the operation of the
/// next who asks for it throws, with the text of EOWNERDEAD, and leaves the mutex consistent and free.
class KEL_API PosixMutex {
public:
    /// `processShared` is PTHREAD_PROCESS_SHARED or PTHREAD_PROCESS_PRIVATE.
    void Init(bool recursive, int processShared);
    /// Destroys it. Throws, and changes nothing, when it is held (EBUSY).
    void Destroy();

    /// @{
    /// As in `IMutexService`.
    bool IsRecursive() const;
    void Lock();
    int TimedLock(unsigned int timeoutMs);
    bool TryLock();
    void Unlock();
    /// @}

    /// For calls that wait with the mutex.
    pthread_mutex_t* GetNativeHandle() { return &mutex; }

private:
    pthread_mutex_t mutex;
    // Kept for as long as the mutex, for the type is read back from it.
    pthread_mutexattr_t attributes;
};

}  // namespace Kel::System::Ve::Internal::Linux
