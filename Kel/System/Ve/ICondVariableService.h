#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/IServiceObject.h>

#include <chrono>

namespace Kel::System::Ve {

/// A condition variable for the threads of one process. It measures time on the monotonic clock, so setting the wall
/// clock neither lengthens nor shortens a wait. A thread that waits holds the mutex, releases it while it waits, and
/// holds it again afterwards, whatever the outcome. A wait may end without reason: test what was waited for, and wait
/// again. Waits are cancellation points: a thread that is cancelled in one holds the mutex while its stack is unwound.
/// Signals do not end a wait. Deleting it blocks until those who have been notified have left their waits, and for ever
/// when somebody waits who has not been. What fails throws VeException.
class KEL_API ICondVariableService : public virtual IServiceObject {
public:
    /// A moment on the monotonic clock.
    using SteadyTimePoint = std::chrono::time_point<std::chrono::steady_clock, std::chrono::nanoseconds>;

    /// Waits until notified (pthread_cond_wait). The mutex is one that the same factory made and that is not recursive:
    /// a recursive one is unlocked once, then VeException is thrown; a mutex of another kind gives `std::bad_cast`.
    virtual void Wait(IMutexService& mutex) = 0;

    /// As `Wait`, for no longer than `timeoutMs` milliseconds (0: do not wait). Returns true when notified, false when
    /// the time ran out (pthread_cond_timedwait).
    virtual bool WaitFor(IMutexService& mutex, unsigned long timeoutMs) = 0;

    /// As `WaitFor`, until `deadline`; a deadline in the past returns false.
    virtual bool WaitUntil(IMutexService& mutex, SteadyTimePoint deadline) = 0;

    /// Wakes one of the threads that wait, if there is any (pthread_cond_signal). The mutex need not be held.
    virtual void NotifyOne() = 0;

    /// Wakes all threads that wait (pthread_cond_broadcast). The mutex need not be held.
    virtual void NotifyAll() = 0;
};

}  // namespace Kel::System::Ve
