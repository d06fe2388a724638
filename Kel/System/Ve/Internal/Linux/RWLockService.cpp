#include <Kel/System/Ve/Internal/Linux/RWLockService.h>

#include <Kel/Core/ErrorText.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/SystemCall.h>
#include <Kel/System/Ve/Internal/Linux/TimeoutConversion.h>

#include <cerrno>

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

namespace {

constexpr char readLockFailed[] = "Could not acquire read-lock. Error {0} ({1}).";
constexpr char writeLockFailed[] = "Could not acquire write-lock. Error {0} ({1}).";

// Unlike elsewhere, the messages carry the text and the number of the error, and not the operation.
[[noreturn, gnu::cold, gnu::noinline]] void Throw(int code, const char* message) {
    throw VeException(message, ErrorText(code), code);
}

void Check(int code, const char* message) {
    if (code != 0) {
        Throw(code, message);
    }
}

bool TryResult(int code, const char* message) {
    if (code == EBUSY) {
        return false;
    }
    Check(code, message);
    return true;
}

// `errorNumber` is errno as the call has left it; the text is not that of the returned code.
bool TimedResult(int code, int errorNumber, const char* operation = __builtin_FUNCTION()) {
    if (code != 0 && code != ETIMEDOUT) {
        ThrowFailure(errorNumber, "{0}: Mutex could not be timelocked: {1}", operation);
    }
    return code == 0;
}

}  // namespace

RWLockService::RWLockService() : ServiceObjectBase("RWLockService", ServiceType::RWLock, true) {
    Check(pthread_rwlock_init(&lock, nullptr), "Could not initialize rw-lock. Error {0} ({1}).");
}

RWLockService::~RWLockService() { Destroy(); }

void RWLockService::Destroy() {
    if (!destroyed) {
        Check(pthread_rwlock_destroy(&lock), "Could not destroy rw-lock. Error {0} ({1}).");
        destroyed = true;
    }
}

void RWLockService::Unlock() {
    Check(pthread_rwlock_unlock(&lock), "Could not unlock read-write-lock. Error {0} ({1}).");
}

void RWLockService::AcquireReadLock() { Check(pthread_rwlock_rdlock(&lock), readLockFailed); }

void RWLockService::AcquireWriteLock() { Check(pthread_rwlock_wrlock(&lock), writeLockFailed); }

void RWLockService::ReleaseReadLock() { Unlock(); }

void RWLockService::ReleaseWriteLock() { Unlock(); }

bool RWLockService::TryAcquireReadLock() { return TryResult(pthread_rwlock_tryrdlock(&lock), readLockFailed); }

bool RWLockService::TryAcquireWriteLock() { return TryResult(pthread_rwlock_trywrlock(&lock), writeLockFailed); }

bool RWLockService::TimedAcquireReadLock(unsigned int timeoutMs) {
    // A free lock is had without reading the clock, which would take longer than all the rest.
    int code = pthread_rwlock_tryrdlock(&lock);
    if (code == EBUSY) {
        timespec deadline;
        TimeoutConversion::Convert(timeoutMs, deadline, TimeoutConversion::Realtime);
        code = pthread_rwlock_timedrdlock(&lock, &deadline);
    }
    return TimedResult(code, errno);
}

bool RWLockService::TimedAcquireWriteLock(unsigned int timeoutMs) {
    int code = pthread_rwlock_trywrlock(&lock);
    if (code == EBUSY) {
        timespec deadline;
        TimeoutConversion::Convert(timeoutMs, deadline, TimeoutConversion::Realtime);
        code = pthread_rwlock_timedwrlock(&lock, &deadline);
    }
    return TimedResult(code, errno);
}

}  // namespace Kel::System::Ve::Internal::Linux
