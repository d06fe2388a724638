#pragma once

#include <Kel/System/Ve/Adapters/Timeout.h>
#include <Kel/System/Ve/IRWLockService.h>

#include <chrono>

namespace Kel::System::Ve::Adapters {

/// A view on a read-write lock, for `std::shared_lock` to read and `std::unique_lock` and the like to write. It owns
/// nothing and is cheap to make and to copy; the locks refer to it, and the service must outlive it. What the lock
/// throws is passed on. Time-outs never end early, also when a clock is set meanwhile.
class SharedLockable {
public:
    /// A view on `lock`.
    explicit SharedLockable(IRWLockService& lock) : service(&lock) {}

    /// The lock itself.
    IRWLockService& GetService() const { return *service; }

    /// @{
    /// To write.
    void lock() { service->AcquireWriteLock(); }
    void unlock() { service->ReleaseWriteLock(); }
    bool try_lock() { return service->TryAcquireWriteLock(); }
    /// @}

    /// @{
    /// To read.
    void lock_shared() { service->AcquireReadLock(); }
    void unlock_shared() { service->ReleaseReadLock(); }
    bool try_lock_shared() { return service->TryAcquireReadLock(); }
    /// @}

    /// A time-out that is not positive does not wait.
    template <class Rep, class Period>
    bool try_lock_for(const std::chrono::duration<Rep, Period>& timeout) {
        return try_lock_until(DeadlineAfter(timeout));
    }
    /// The same for reading.
    template <class Rep, class Period>
    bool try_lock_shared_for(const std::chrono::duration<Rep, Period>& timeout) {
        return try_lock_shared_until(DeadlineAfter(timeout));
    }

    /// A deadline that has passed does not wait.
    template <class Clock, class Duration>
    bool try_lock_until(const std::chrono::time_point<Clock, Duration>& deadline) {
        return AcquireUntil(deadline,
                            [this](unsigned int timeoutMs) { return service->TimedAcquireWriteLock(timeoutMs); });
    }
    /// The same for reading.
    template <class Clock, class Duration>
    bool try_lock_shared_until(const std::chrono::time_point<Clock, Duration>& deadline) {
        return AcquireUntil(deadline,
                            [this](unsigned int timeoutMs) { return service->TimedAcquireReadLock(timeoutMs); });
    }

private:
    IRWLockService* service;
};

}  // namespace Kel::System::Ve::Adapters
