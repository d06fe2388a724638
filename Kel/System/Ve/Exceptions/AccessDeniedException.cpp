#include <Kel/System/Ve/Exceptions/AccessDeniedException.h>

namespace Kel::System::Ve::Exceptions {

AccessDeniedException::~AccessDeniedException() = default;

std::int32_t AccessDeniedException::GetTypeCodeInternal() const { return 260; }

}  // namespace Kel::System::Ve::Exceptions
