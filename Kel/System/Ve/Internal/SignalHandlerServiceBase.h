#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ISignalHandlerService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// What the signal handlers of all platforms have in common: being service objects.
class KEL_API SignalHandlerServiceBase : public ISignalHandlerService, public virtual ServiceObjectBase {};

}  // namespace Kel::System::Ve::Internal
