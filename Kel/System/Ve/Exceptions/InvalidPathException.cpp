#include <Kel/System/Ve/Exceptions/InvalidPathException.h>

namespace Kel::System::Ve::Exceptions {

InvalidPathException::~InvalidPathException() = default;

std::int32_t InvalidPathException::GetTypeCodeInternal() const { return 259; }

}  // namespace Kel::System::Ve::Exceptions
