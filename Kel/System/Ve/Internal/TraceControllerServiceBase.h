#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ITraceControllerService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// What the trace controllers of all platforms have in common: being service objects.
class KEL_API TraceControllerServiceBase : public ITraceControllerService, public virtual ServiceObjectBase {};

}  // namespace Kel::System::Ve::Internal
