#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// A mutex for the threads of one process, with priority inheritance: while a thread waits for it, the holder runs at
/// no less than the waiting thread's priority. All operations may be called from any thread; only the thread that holds
/// the mutex may unlock it. None is a cancellation point, and signals do not end a wait. What fails throws VeException,
/// with the name of the operation and the text of the error; that of TimedLock and TryLock is of `errno` and may be
/// about something else. Deleting a mutex that is held ends the process.
///
/// A thread that ends while it holds a mutex made by the factory leaves it locked: Lock waits for ever then. A mutex
/// for several processes, which a platform may have beside, throws instead, with the text "Owner died", when the next
/// thread asks for it.
///
/// Threads that take two mutexes take them in one order, also where one of them uses TimedLock: the
/// kernel refuses the wait that closes a circle, and the C library then waits for ever, or ends the process where the
/// mutex is recursive.
class KEL_API IMutexService : public virtual IServiceObject {
public:
    /// Returns true when the holder may lock the mutex again; it is free after as many unlocks.
    virtual bool IsRecursive() const = 0;

    /// Waits until the mutex is free and takes it (pthread_mutex_lock). The holder of a mutex that is not recursive
    /// waits for ever.
    virtual void Lock() = 0;

    /// Waits until the mutex is free or `timeoutMs` milliseconds (0: do not wait) have passed on the realtime clock
    /// (pthread_mutex_timedlock). Returns 0 when acquired, -1 when the time ran out, which it does for the holder of a
    /// mutex that is not recursive.
    virtual int TimedLock(unsigned int timeoutMs) = 0;

    /// Takes the mutex if it is free (pthread_mutex_trylock). Returns true when acquired, false when it is held, also
    /// by the caller unless it is recursive. Never waits.
    virtual bool TryLock() = 0;

    /// Releases the mutex (pthread_mutex_unlock). Throws also when the caller does not hold it.
    virtual void Unlock() = 0;
};

}  // namespace Kel::System::Ve
