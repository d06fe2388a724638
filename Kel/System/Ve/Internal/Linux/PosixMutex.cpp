#include <Kel/System/Ve/Internal/Linux/PosixMutex.h>

#include <Kel/System/Ve/Internal/Linux/SystemCall.h>
#include <Kel/System/Ve/Internal/Linux/TimeoutConversion.h>

#include <cerrno>

namespace Kel::System::Ve::Internal::Linux {

namespace {

// For a mutex that has been acquired with EOWNERDEAD. Leaves that in errno, too, whose text some operations give.
[[gnu::cold, gnu::noinline]] void RecoverAndUnlock(pthread_mutex_t& mutex) {
    pthread_mutex_consistent(&mutex);
    pthread_mutex_unlock(&mutex);
    errno = EOWNERDEAD;
}

bool IsRobust(const pthread_mutexattr_t& attributes) {
    int robustness = PTHREAD_MUTEX_STALLED;
    pthread_mutexattr_getrobust(&attributes, &robustness);
    return robustness == PTHREAD_MUTEX_ROBUST;
}

bool IsHeld(pthread_mutex_t& mutex) {
    const int code = pthread_mutex_trylock(&mutex);
    if (code == EOWNERDEAD) {
        RecoverAndUnlock(mutex);
    }
    if (code != 0) {
        return code == EBUSY;
    }
    // A recursive mutex is locked once more for its holder.
    const bool isHeldByCaller = mutex.__data.__count > 1;
    pthread_mutex_unlock(&mutex);
    return isHeldByCaller;
}

}  // namespace

void PosixMutex::Init(bool recursive, int processShared) {
    CheckReturnedCode(pthread_mutexattr_init(&attributes), "{0}: Could not initialize mutex attribute: {1}");
    CheckReturnedCode(
        pthread_mutexattr_settype(&attributes, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL),
        "{0}: Could not set the mutex type: {1}");
    CheckReturnedCode(pthread_mutexattr_setpshared(&attributes, processShared),
                      "{0}: Could not set shared-flag on mutex attribute: {1}");
    CheckReturnedCode(pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT),
                      "{0}: Could not update the protocol information for the mutex: {1}");
    if (processShared == PTHREAD_PROCESS_SHARED) {
        // Without this the C library ends those who wait for a holder that dies, and lets later ones wait for ever.
        CheckReturnedCode(pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST),
                          "{0}: Mutex could not be initiated: {1}");
    }
    CheckReturnedCode(pthread_mutex_init(&mutex, &attributes), "{0}: Mutex could not be initiated: {1}");
}

void PosixMutex::Destroy() {
    // The C library destroys a robust mutex whoever holds it.
    if (IsRobust(attributes) && IsHeld(mutex)) {
        ThrowFailure(EBUSY, "{0}: Mutex could not be destroyed: {1}");
    }
    CheckReturnedCode(pthread_mutexattr_destroy(&attributes), "{0}: Could not destroy mutex attribute: {1}");
    CheckReturnedCode(pthread_mutex_destroy(&mutex), "{0}: Mutex could not be destroyed: {1}");
}

bool PosixMutex::IsRecursive() const {
    int type = 0;
    CheckReturnedCode(pthread_mutexattr_gettype(&attributes, &type), "{0}: Could not query mutex type: {1}");
    return type == PTHREAD_MUTEX_RECURSIVE;
}

void PosixMutex::Lock() {
    const int code = pthread_mutex_lock(&mutex);
    if (code == EOWNERDEAD) {
        RecoverAndUnlock(mutex);
    }
    CheckReturnedCode(code, "{0}: Mutex could not be locked: {1}");
}

int PosixMutex::TimedLock(unsigned int timeoutMs) {
    // A free mutex is had without reading the clock, which would take longer than all the rest.
    int code = pthread_mutex_trylock(&mutex);
    if (code == EBUSY) {
        timespec deadline;
        TimeoutConversion::Convert(timeoutMs, deadline, TimeoutConversion::Realtime);
        code = pthread_mutex_timedlock(&mutex, &deadline);
    }
    if (code == 0) {
        return 0;
    }
    if (code == ETIMEDOUT) {
        return -1;
    }
    if (code == EOWNERDEAD) {
        RecoverAndUnlock(mutex);
    }
    // The text is that of errno, which the call leaves alone.
    ThrowFailure(errno, "{0}: Mutex could not be timelocked: {1}");
}

bool PosixMutex::TryLock() {
    const int code = pthread_mutex_trylock(&mutex);
    if (code == 0) {
        return true;
    }
    if (code == EBUSY) {
        return false;
    }
    if (code == EOWNERDEAD) {
        RecoverAndUnlock(mutex);
    }
    // The text is that of errno, which the call leaves alone.
    ThrowFailure(errno, "{0}: Mutex could not be trylocked: {1}");
}

void PosixMutex::Unlock() { CheckReturnedCode(pthread_mutex_unlock(&mutex), "{0}: Mutex could not be unlocked: {1}"); }

}  // namespace Kel::System::Ve::Internal::Linux
