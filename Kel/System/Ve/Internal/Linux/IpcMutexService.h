#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/Linux/PosixMutex.h>

namespace Kel::System::Ve::Internal::Linux {

/// A mutex for the threads of several processes, with priority inheritance, in memory that they share. Not a service
/// object: its user places it there, calls `Init` once before any other process uses it, and `Destroy` once after the
/// last has. `Destroy` is refused (EBUSY) while anyone holds the mutex, which goes on working. All other operations may
/// be called from any thread of any process, and behave as those of `IMutexService`.
///
/// When a thread or a process ends while it holds the mutex, what that guards may be half changed: the next who asks
/// for the mutex gets an exception, with the text of EOWNERDEAD ("Owner died") as its error, and does not hold it.
/// After that the mutex is consistent and free, and whoever gets the exception repairs, or gives up, what it guards.
/// Others who wait may be first, and are told nothing: where there are more than two, a mark in what the mutex guards,
/// set for as long as it is being changed, tells each of them.
///
/// A process must not unmap the memory while one of its threads holds the mutex: that thread's next lock or unlock of
/// another mutex between processes would raise SIGSEGV, and once it has ended, the C library would end the processes
/// that lock this one.
class KEL_API IpcMutexService : public PosixMutex {
public:
    /// Makes the mutex where it lies, free.
    void Init(bool recursive);
};

}  // namespace Kel::System::Ve::Internal::Linux
