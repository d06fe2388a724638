#pragma once

#include <Kel/System/Ve/Adapters/Timeout.h>
#include <Kel/System/Ve/IMutexService.h>

#include <chrono>

namespace Kel::System::Ve::Adapters {

/// A view on a mutex, for `std::lock_guard`, `std::unique_lock` and `std::scoped_lock`. It owns nothing and is cheap to
/// make and to copy; the locks refer to it, and the mutex must outlive it. What the mutex throws is passed on, and its
/// holder's second lock waits for ever unless it is recursive. Time-outs never end early, also when a clock is set
/// meanwhile.
class Lockable {
public:
    /// A view on `mutex`.
    explicit Lockable(IMutexService& mutex) : service(&mutex) {}

    /// The mutex itself.
    IMutexService& GetService() const { return *service; }

    /// @{
    /// Lock, Unlock and TryLock of the mutex.
    void lock() { service->Lock(); }
    void unlock() { service->Unlock(); }
    bool try_lock() { return service->TryLock(); }
    /// @}

    /// A time-out that is not positive does not wait.
    template <class Rep, class Period>
    bool try_lock_for(const std::chrono::duration<Rep, Period>& timeout) {
        return try_lock_until(DeadlineAfter(timeout));
    }

    /// A deadline that has passed does not wait.
    template <class Clock, class Duration>
    bool try_lock_until(const std::chrono::time_point<Clock, Duration>& deadline) {
        return AcquireUntil(deadline, [this](unsigned int timeoutMs) { return service->TimedLock(timeoutMs) == 0; });
    }

private:
    IMutexService* service;
};

}  // namespace Kel::System::Ve::Adapters
