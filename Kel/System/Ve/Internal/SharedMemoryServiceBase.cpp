#include <Kel/System/Ve/Internal/SharedMemoryServiceBase.h>

#include <Kel/Core/Exception.h>

namespace Kel::System::Ve::Internal {

void* SharedMemoryServiceBase::GetAddress() {
    if (address == nullptr) {
        throw Exception("{0}: Shared Memory <{1}>: nullptr", __func__, name);
    }
    return address;
}

}  // namespace Kel::System::Ve::Internal
