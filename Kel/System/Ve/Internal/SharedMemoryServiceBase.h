#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ISharedMemoryService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// What the shared memory of all platforms has in common: name, size and place.
class KEL_API SharedMemoryServiceBase : public ISharedMemoryService, public virtual ServiceObjectBase {
public:
    void* GetAddress() final;
    const BasicString& GetName() const final { return name; }
    unsigned int GetSize() const final { return size; }

protected:
    SharedMemoryServiceBase(const BasicString& memoryName, unsigned int bytes) : name(memoryName), size(bytes) {}

    BasicString name;
    unsigned int size;
    // Null before it is mapped.
    void* address = nullptr;
};

}  // namespace Kel::System::Ve::Internal
