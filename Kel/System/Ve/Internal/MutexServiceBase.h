#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// What the mutexes of all platforms have in common: being service objects.
class KEL_API MutexServiceBase : public IMutexService, public virtual ServiceObjectBase {};

}  // namespace Kel::System::Ve::Internal
