#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IProcessService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// What the processes of all platforms have in common: being service objects. The static operations, which concern the
/// calling process, are the platform's.
class KEL_API ProcessServiceBase : public IProcessService, public virtual ServiceObjectBase {
public:
    /// Gives the main thread normal scheduling and, if `cpu` is above 0, binds it to processor number `cpu` - 1
    /// (sched_setscheduler, sched_setaffinity). Failures are not told.
    static void SetupCurrentProcess(int cpu);

    /// Returns the path of the running program, of at most 1024 characters; empty when that cannot be read.
    static BasicString GetCurrentName();
};

}  // namespace Kel::System::Ve::Internal
