#include <Kel/System/Ve/Internal/Linux/PosixCondition.h>

#include <Kel/System/Ve/Internal/Linux/SystemCall.h>

#include <cerrno>

namespace Kel::System::Ve::Internal::Linux {

namespace {

void MakeConsistent(void* mutex) { pthread_mutex_consistent(static_cast<pthread_mutex_t*>(mutex)); }

// A wait ends with the mutex held, also when the mutex's last holder has died, and also when the thread is cancelled,
// which is not told of that. An inconsistent mutex would be lost to all with the next unlock.
template <typename Wait>
int WaitConsistently(PosixMutex& mutex, Wait wait) {
    int code = 0;
    pthread_cleanup_push(&MakeConsistent, mutex.GetNativeHandle());
    code = wait(mutex.GetNativeHandle());
    pthread_cleanup_pop(code == EOWNERDEAD ? 1 : 0);
    if (code == EOWNERDEAD) {
        errno = code;
    }
    return code;
}

}  // namespace

void InitCondition(pthread_cond_t& condition, pthread_condattr_t& attributes, int processShared) {
    CheckReturnedCode(pthread_condattr_init(&attributes), "Could not initialize condition variable attribute.");
    CheckReturnedCode(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC),
                      "Could not set MONOTONIC clock as reference for condition variable.");
    // The text is the same when the condition variable is to be shared.
    CheckReturnedCode(pthread_condattr_setpshared(&attributes, processShared),
                      "Could not mark event as process private only.");
    CheckReturnedCode(pthread_cond_init(&condition, &attributes));
}

int WaitForCondition(pthread_cond_t& condition, PosixMutex& mutex) {
    return WaitConsistently(mutex, [&](pthread_mutex_t* held) { return pthread_cond_wait(&condition, held); });
}

int WaitForCondition(pthread_cond_t& condition, PosixMutex& mutex, const timespec& deadline) {
    return WaitConsistently(mutex,
                            [&](pthread_mutex_t* held) { return pthread_cond_timedwait(&condition, held, &deadline); });
}

}  // namespace Kel::System::Ve::Internal::Linux
