#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ISemaphoreService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// What the semaphores of all platforms have in common: their name.
class KEL_API SemaphoreServiceBase : public ISemaphoreService, public virtual ServiceObjectBase {
public:
    const BasicString& GetName() const final { return name; }

protected:
    explicit SemaphoreServiceBase(const BasicString& semaphoreName) : name(semaphoreName) {}

    BasicString name;
};

}  // namespace Kel::System::Ve::Internal
