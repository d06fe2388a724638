#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/Linux/PosixMutex.h>

namespace Kel::System::Ve::Internal::Linux {

/// A mutex for the threads of several processes, with priority inheritance, in memory that they share. Not a service
/// object: its user places it there, calls `Init` once before any other process uses it, and `Destroy` once after the
/// last has. All other operations may be called from any thread of any process, and behave as those of
/// `IMutexService`. A process that ends while it holds the mutex leaves it unusable: the C library ends those who wait
/// for it at that moment, and later ones wait in vain.
class KEL_API IpcMutexService : public PosixMutex {
public:
    void Init(bool recursive);
};

}  // namespace Kel::System::Ve::Internal::Linux
