#pragma once

#include <Kel/System/Ve/Adapters/Lockable.h>
#include <Kel/System/Ve/Adapters/Timeout.h>
#include <Kel/System/Ve/ICondVariableService.h>

#include <chrono>
#include <mutex>

namespace Kel::System::Ve::Adapters {

/// Calls `waitOnce(mutex)` until `predicate()` is true or the time has run out, and returns what it is in the end: what
/// the waits below have in common.
template <class Predicate, class WaitOnce>
bool WaitUntilTrue(std::unique_lock<Lockable>& lock, Predicate& predicate, WaitOnce waitOnce) {
    IMutexService& mutex = lock.mutex()->GetService();
    while (!predicate()) {
        try {
            if (!waitOnce(mutex)) {
                return predicate();
            }
        } catch (...) {
            if (mutex.IsRecursive()) {
                lock.release();
            }
            throw;
        }
    }
    return true;
}

/// Waits until notified for as long as `predicate()` is false. It is called with the lock held, and the lock is held
/// afterwards. A cancellation point when it has to wait. Throws VeException when the wait fails; a recursive mutex,
/// which condition variables refuse, has been unlocked once then, and `lock` has no mutex any more.
template <class Predicate>
void Wait(ICondVariableService& condition, std::unique_lock<Lockable>& lock, Predicate predicate) {
    WaitUntilTrue(lock, predicate, [&](IMutexService& mutex) {
        condition.Wait(mutex);
        return true;
    });
}

/// The same until `deadline`; one that has passed does not wait. Returns what the predicate is in the end.
template <class Predicate>
bool WaitUntil(ICondVariableService& condition, std::unique_lock<Lockable>& lock,
               ICondVariableService::SteadyTimePoint deadline, Predicate predicate) {
    return WaitUntilTrue(lock, predicate, [&](IMutexService& mutex) { return condition.WaitUntil(mutex, deadline); });
}

/// The same for no longer than `timeout`; one that is not positive does not wait.
template <class Rep, class Period, class Predicate>
bool WaitFor(ICondVariableService& condition, std::unique_lock<Lockable>& lock,
             const std::chrono::duration<Rep, Period>& timeout, Predicate predicate) {
    return WaitUntil(condition, lock, DeadlineAfter(timeout), predicate);
}

}  // namespace Kel::System::Ve::Adapters
