#include <Kel/System/Ve/Internal/Linux/PosixCondition.h>

#include <Kel/System/Ve/Internal/Linux/SystemCall.h>

#include <cerrno>

namespace Kel::System::Ve::Internal::Linux {

namespace {

// A thread that is cancelled while it waits holds the mutex when it unwinds, but is not told that the holder before it
// has died. If that were left so, the mutex would be lost to all with its next unlocking.
class MutexRecovery {
public:
    explicit MutexRecovery(PosixMutex& waited) : mutex(waited) {}
    ~MutexRecovery() {
        if (isWaiting) {
            mutex.Recover(EOWNERDEAD);
        }
    }
    MutexRecovery(const MutexRecovery&) = delete;
    MutexRecovery& operator=(const MutexRecovery&) = delete;

    int Ends(int code) {
        isWaiting = false;
        return mutex.Recover(code);
    }

private:
    PosixMutex& mutex;
    bool isWaiting = true;
};

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
    MutexRecovery recovery(mutex);
    return recovery.Ends(pthread_cond_wait(&condition, mutex.GetNativeHandle()));
}

int WaitForCondition(pthread_cond_t& condition, PosixMutex& mutex, const timespec& deadline) {
    MutexRecovery recovery(mutex);
    return recovery.Ends(pthread_cond_timedwait(&condition, mutex.GetNativeHandle(), &deadline));
}

}  // namespace Kel::System::Ve::Internal::Linux
