#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// Calls a handler with one argument periodically, on a thread of its own, whose stack has the default size of the
/// process (mostly 8 MB), which cannot be set here. The deadlines are the start plus whole periods on the monotonic
/// clock, so the rhythm does not drift. A handler that takes longer than the period is called again at once until the
/// missed calls are made up. Calls never overlap. What fails throws VeException; a setting that could not be changed
/// keeps its stored value. An exception from the handler ends the process. Deleting the object stops the timer; the
/// handler may do that, too, and is not called again. Any thread may call Start and Stop. They are cancellation points
/// where they wait for the call in progress: Stop, and Start after the handler has stopped the timer, after a cancelled
/// Stop or after a Start that has thrown. A timer counts as three objects in the factory's statistics and report:
/// itself, a mutex and a condition variable.
class KEL_API ITimerService : public virtual IServiceObject {
public:
    /// Returns the period in microseconds.
    virtual unsigned int GetPeriod() const = 0;

    /// Returns the real-time priority; 0 for normal scheduling.
    virtual unsigned int GetPriority() const = 0;

    /// Returns the name, as it was cut.
    virtual const BasicString& GetName() const = 0;

    /// Returns the processors that the timer's thread may run on, bit n for processor n; 0 when none were set.
    virtual unsigned int GetCPUAffinity() const = 0;

    /// Sets the period in microseconds, for the next start; 0 calls the handler without pause.
    virtual void SetPeriod(unsigned int microseconds) = 0;

    /// Sets the real-time priority (SCHED_FIFO, 1 to 99); 0 is normal scheduling (SCHED_OTHER).
    virtual void SetPriority(unsigned int priority) = 0;

    /// Sets the name of the timer's thread, cut to 15 characters.
    virtual void SetName(const BasicString& name) = 0;

    /// Sets the processors 0 to 31 that the thread may run on. 0 sets none at the start, and fails in a started timer.
    virtual void SetCPUAffinity(unsigned int mask) = 0;

    /// @{
    /// Changes the timer's thread and not what is stored. Throws VeException also when there is none. The processors
    /// cannot be 0 here.
    virtual void ChangeName(const BasicString& name) = 0;
    virtual void ChangePriority(unsigned int priority) = 0;
    virtual void ChangeCpuAffinity(unsigned int mask) = 0;
    /// @}

    /// Returns how many characters of a name are used: 15.
    virtual unsigned int GetMaxNameLength() const = 0;

    /// Starts the timer; the handler is first called at once. A real-time priority needs the right to it; without, this
    /// throws, and nothing has been started. Throws also when the timer has been started already, and when called by
    /// its own handler. When it throws because the name or the processors could not be set, the handler is called all
    /// the same, but the timer is not started: Stop does nothing; another Start, or deleting the object, ends these
    /// calls.
    virtual void Start() = 0;

    /// Stops the timer: waits until the handler call in progress has returned; no other follows. Does nothing when the
    /// timer is not started, except that it waits for a call that has itself called Stop. Called by the handler, it
    /// returns at once. When the caller is cancelled meanwhile, the timer is stopped all the same and can be started
    /// again.
    virtual void Stop() = 0;
};

}  // namespace Kel::System::Ve
