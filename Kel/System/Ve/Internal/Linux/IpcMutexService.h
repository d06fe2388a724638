#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/Linux/PosixMutex.h>

namespace Kel::System::Ve::Internal::Linux {

/// A mutex for the threads of several processes, with priority inheritance, in memory that they share. Not a service
/// object: its user places it there, calls `Init` once before any other process uses it, and `Destroy` once after the
/// last has. All other operations may be called from any thread of any process, and behave as those of
/// `IMutexService`. When a process ends while it holds the mutex, what that guards may be half changed: the next who
/// asks for the mutex gets an exception, with the text of EOWNERDEAD ("Owner died") as its error, and does not hold it.
/// After that it is as good as before, and whoever gets the exception mends, or gives up, what the mutex guards. Others
/// who wait may be first, and are told nothing: where there are more than two, a mark in what the mutex guards, set for
/// as long as it is being changed, tells each of them.
class KEL_API IpcMutexService : public PosixMutex {
public:
    /// Makes the mutex where it lies, free.
    void Init(bool recursive);
};

}  // namespace Kel::System::Ve::Internal::Linux
