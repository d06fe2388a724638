#pragma once

#include <Kel/Core/Export.h>

#include <pthread.h>

#include <cerrno>

namespace Kel::System::Ve::Internal::Linux {

/// A POSIX mutex with priority inheritance, and the attribute it was made with: what `MutexService` and
/// `IpcMutexService` have in common. Trivial and of standard layout, so that it can lie in shared memory.
/// `Init` and `Destroy` must not race with anything. All operations throw VeException when a call fails.
/// One that processes share survives those who die while they hold it: the next who asks for it is told so, by the
/// exception of the operation, with the text of EOWNERDEAD, and does not hold it; after that it is as good as before.
class KEL_API PosixMutex {
public:
    /// `processShared` is PTHREAD_PROCESS_SHARED or PTHREAD_PROCESS_PRIVATE.
    void Init(bool recursive, int processShared);
    /// Ends it; it must not be held.
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

    /// Makes the mutex good again, still held, if `code`, from a call that has acquired it, says that its holder has
    /// died. Returns the code, which is in errno, too, then.
    int Recover(int code);

private:
    // The same, but it is not held. Nearly always there is nothing to be done, so that costs no call.
    int Release(int code) { return code == EOWNERDEAD ? ReleaseDeadOnes() : code; }
    int ReleaseDeadOnes();

    pthread_mutex_t mutex;
    // Kept for as long as the mutex, for the type is read back from it.
    pthread_mutexattr_t attributes;
};

}  // namespace Kel::System::Ve::Internal::Linux
