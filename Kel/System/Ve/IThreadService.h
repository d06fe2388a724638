#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// A thread that runs a function with one argument. Its settings are stored until it is started, applied at the start,
/// and changed in the running thread when set later. What fails throws VeException; a setting that could not be changed
/// keeps its stored value. The thread ends when its function returns, when it is cancelled, or by pthread_exit.
/// Deleting the object waits until the thread has ended; a thread that deletes its own object is detached by that
/// instead. So an object with static storage duration keeps the process from exiting while its thread runs: end the
/// thread and delete the object before main returns. From the first start on, the object counts as two in the factory's
/// statistics and report: itself and the semaphore of the start. Settings are not guarded against being set by several
/// threads at once. Only Join is a cancellation point.
class KEL_API IThreadService : public virtual IServiceObject {
public:
    /// Starts the thread (pthread_create) and returns once it has named itself and is about to call the function. A
    /// real-time priority needs the right to it; without, this throws, and nothing has been started. May be called
    /// again: the object then stands for the new thread, and one that still runs is left to itself. Nothing waits for
    /// its end any more, so what its function uses has to stay.
    virtual void StartThread() = 0;

    /// Returns the processors that the thread may run on, bit n for processor n; 0 when none were set.
    virtual unsigned int GetCpuAffinity() const = 0;

    /// Returns the real-time priority; 0 for normal scheduling.
    virtual unsigned int GetPriority() const = 0;

    /// Returns the size of the stack in bytes; 0 for the system's default.
    virtual unsigned int GetStackSize() const = 0;

    /// Returns the name, as it was cut.
    virtual const BasicString& GetName() const = 0;

    /// Sets the processors 0 to 31 that the thread may run on. 0 sets none at the start, and processors 0 to 9 in a
    /// started thread.
    virtual void SetCpuAffinity(unsigned int mask) = 0;

    /// Sets the real-time priority (SCHED_FIFO, 1 to 99); 0 is normal scheduling (SCHED_OTHER).
    virtual void SetPriority(unsigned int priority) = 0;

    /// Sets the size of the stack. Throws VeException once the thread has been started. A thread in which the library
    /// may throw, or which may crash and is to be reported, needs 80 KiB beside what its own functions use.
    virtual void SetStackSize(unsigned int bytes) = 0;

    /// Sets the name, cut to 15 characters.
    virtual void SetName(const BasicString& name) = 0;

    /// Sets the function, for the next start. What it returns is not kept; an exception that leaves it ends the
    /// process.
    virtual void SetThreadFunction(void* (*function)(void*)) = 0;

    /// @{
    /// Changes the running thread and not what is stored. Throws VeException also when there is no running thread.
    virtual void ChangeName(const BasicString& name) = 0;
    virtual void ChangePriority(unsigned int priority) = 0;
    /// @}

    /// The same; 0 stands for processors 0 to 9.
    virtual void ChangeCpuAffinity(unsigned int mask) = 0;

    /// Waits until the thread has ended (pthread_join). Throws VeException when there is none, when it has been joined,
    /// when another is started by this object meanwhile, and when it is the caller itself. A cancellation point while
    /// the thread runs: the thread can be joined again then.
    virtual void Join() = 0;

    /// Asks the thread to end at its next cancellation point (pthread_cancel), but not before its function is called.
    /// Throws VeException when there is none, or it has been joined.
    virtual void Cancel() = 0;

    /// True from the start until the function has returned or the thread has been joined.
    virtual bool Joinable() const = 0;
};

}  // namespace Kel::System::Ve
