#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IRWLockService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// What the read-write locks of all platforms have in common: being service objects.
class KEL_API RWLockServiceBase : public IRWLockService, public virtual ServiceObjectBase {};

}  // namespace Kel::System::Ve::Internal
