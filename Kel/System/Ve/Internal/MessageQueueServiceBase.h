#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IMessageQueueService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// What the message queues of all platforms have in common: being service objects.
class KEL_API MessageQueueServiceBase : public IMessageQueueService, public virtual ServiceObjectBase {};

}  // namespace Kel::System::Ve::Internal
