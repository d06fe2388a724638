#include <Kel/System/Ve/Exceptions/AlreadyExistsException.h>

namespace Kel::System::Ve::Exceptions {

AlreadyExistsException::~AlreadyExistsException() = default;

std::int32_t AlreadyExistsException::GetTypeCodeInternal() const { return 258; }

}  // namespace Kel::System::Ve::Exceptions
