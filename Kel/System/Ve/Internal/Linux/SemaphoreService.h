#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/SemaphoreServiceBase.h>

#include <semaphore.h>

namespace Kel::System::Ve::Internal::Linux {

/// The semaphore service on Linux. Once closed, unlinked or destroyed it refuses every operation with VeException.
class KEL_API SemaphoreService final : public SemaphoreServiceBase {
public:
    /// Makes an unnamed semaphore (sem_init).
    explicit SemaphoreService(unsigned int initialValue);

    /// Makes a named semaphore (sem_open), readable and writable for all, less the process's umask. The system decides
    /// which names are good; they begin with a slash. Throws AlreadyExistsException when the name is in use.
    SemaphoreService(const BasicString& semaphoreName, unsigned int initialValue);

    /// Opens a named semaphore that exists (sem_open).
    explicit SemaphoreService(const BasicString& semaphoreName);

    /// Closes or destroys the semaphore, and removes its name if this object has made it. A failure ends the process.
    ~SemaphoreService() override;

    void Post() override;
    bool Wait(unsigned int timeoutMs) override;
    bool TryWait() override;
    int GetValue() const override;

    /// As `Wait` without a limit.
    void WaitInfinite();
    /// As `WaitInfinite`, but a wait that a signal handler interrupts goes on, and so does one that fails: that is
    /// thrown after the semaphore has been acquired.
    void WaitRetryingOnEintr();
    /// Returns false when the time ran out; 0 does not wait.
    bool TimedWait(unsigned int timeoutMs);

    /// Closes a named semaphore (sem_close). Does nothing when there is none any more; throws for an unnamed one. None
    /// of these three may be called while another thread uses the object.
    void Close();
    /// Removes the name; those who have the semaphore open keep it, but this object does not. Does nothing without a
    /// name.
    void Unlink();
    /// Destroys an unnamed semaphore (sem_destroy), which nobody may be waiting for, and closes a named one. Does
    /// nothing when there is none any more.
    void Destroy();

private:
    /// Returns the semaphore; throws VeException when there is none any more.
    sem_t* GetHandle(const char* operation = __builtin_FUNCTION()) const;

    sem_t storage;
    // Points to the storage when unnamed; null once there is no semaphore any more.
    sem_t* handle = nullptr;
    bool created = false;
};

}  // namespace Kel::System::Ve::Internal::Linux
