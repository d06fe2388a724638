#include <Kel/System/Ve/Internal/Linux/SemaphoreService.h>

#include <Kel/System/Ve/Exceptions/AlreadyExistsException.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/SystemCall.h>
#include <Kel/System/Ve/Internal/Linux/TimeoutConversion.h>

#include <fcntl.h>
#include <pthread.h>

#include <cerrno>

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::AlreadyExistsException;
using Exceptions::VeException;

namespace {

constexpr char serviceName[] = "SemaphoreService";
constexpr char waitFailed[] = "{0}: Semaphore could not be waited for: {1}";

}  // namespace

SemaphoreService::SemaphoreService(unsigned int initialValue)
    : ServiceObjectBase(serviceName, ServiceType::Semaphore, true), SemaphoreServiceBase(BasicString::Empty) {
    CheckErrno(sem_init(&storage, 0, initialValue), "{0}: Unnamed semaphore could not be initiated: {1}");
    handle = &storage;
}

SemaphoreService::SemaphoreService(const BasicString& semaphoreName, unsigned int initialValue)
    : ServiceObjectBase(serviceName, ServiceType::Semaphore, true), SemaphoreServiceBase(semaphoreName) {
    handle = sem_open(name.c_str(), O_CREAT | O_EXCL, 0666, initialValue);
    if (handle == SEM_FAILED) {
        const int errorNumber = errno;
        if (errorNumber == EEXIST) {
            throw AlreadyExistsException("{0}: Semaphore with name {1} already exists.", __func__, name);
        }
        ThrowFailure(errorNumber, "{0}: Named semaphore could not be created. Error: {1}");
    }
    created = true;
}

SemaphoreService::SemaphoreService(const BasicString& semaphoreName)
    : ServiceObjectBase(serviceName, ServiceType::Semaphore, true), SemaphoreServiceBase(semaphoreName) {
    handle = sem_open(name.c_str(), 0);
    if (handle == SEM_FAILED) {
        ThrowFailure(errno, "{0}: Named emaphore could not be opened Error: {1}");
    }
}

SemaphoreService::~SemaphoreService() {
    if (name.empty()) {
        Destroy();
        return;
    }
    Close();
    if (created) {
        Unlink();
    }
}

void SemaphoreService::Post() { CheckErrno(sem_post(GetHandle()), "{0}: Semaphore could not be posted: {1}"); }

bool SemaphoreService::Wait(unsigned int timeoutMs) {
    static_cast<void>(GetHandle());
    if (timeoutMs != 0) {
        return TimedWait(timeoutMs);
    }
    WaitInfinite();
    return true;
}

void SemaphoreService::WaitInfinite() { CheckErrno(sem_wait(GetHandle()), waitFailed); }

void SemaphoreService::WaitRetryingOnEintr() {
    int failure = 0;
    while (sem_wait(GetHandle()) == -1) {
        if (errno != EINTR) {
            failure = errno;
        }
    }
    if (failure != 0) {
        ThrowFailure(failure, waitFailed, "WaitInfinite");
    }
}

bool SemaphoreService::TimedWait(unsigned int timeoutMs) {
    sem_t* const semaphore = GetHandle();
    // Without a wait, and without reading the clock, which would take longer than all the rest. What is a cancellation
    // point when it waits is one when it does not.
    pthread_testcancel();
    int result = sem_trywait(semaphore);
    if (result == -1 && errno == EAGAIN) {
        timespec deadline;
        TimeoutConversion::Convert(timeoutMs, deadline, TimeoutConversion::Realtime);
        result = sem_timedwait(semaphore, &deadline);
    }
    if (result == -1 && errno == ETIMEDOUT) {
        return false;
    }
    CheckErrno(result, "{0}: Semaphore could not be timewaited for: {1}");
    return true;
}

bool SemaphoreService::TryWait() {
    const int result = sem_trywait(GetHandle());
    if (result == -1 && errno == EAGAIN) {
        return false;
    }
    CheckErrno(result, waitFailed);
    return true;
}

int SemaphoreService::GetValue() const {
    int value = 0;
    CheckErrno(sem_getvalue(GetHandle(), &value), "{0}: Semaphore value could not be retrieved: {1}");
    return value;
}

void SemaphoreService::Close() {
    if (handle != nullptr) {
        CheckErrno(sem_close(handle), "{0}: Semaphore could not be closed: {1}");
        handle = nullptr;
    }
}

void SemaphoreService::Unlink() {
    if (!name.empty()) {
        CheckErrno(sem_unlink(name.c_str()), "{0}: Semaphore could not be unlinked: {1}");
        if (handle != nullptr) {
            // Nothing closes it any more after this.
            sem_close(handle);
            handle = nullptr;
        }
        name.clear();
    }
}

void SemaphoreService::Destroy() {
    if (handle != nullptr) {
        // Destroying a named one is undefined, and would leave it mapped.
        CheckErrno(handle == &storage ? sem_destroy(handle) : sem_close(handle),
                   "{0}: Semaphore could not be destroyed: {1}");
        handle = nullptr;
    }
}

sem_t* SemaphoreService::GetHandle(const char* operation) const {
    if (handle == nullptr) {
        throw VeException("{0}: Semaphore not initialized.", operation);
    }
    return handle;
}

}  // namespace Kel::System::Ve::Internal::Linux
