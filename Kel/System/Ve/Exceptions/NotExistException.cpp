#include <Kel/System/Ve/Exceptions/NotExistException.h>

namespace Kel::System::Ve::Exceptions {

NotExistException::~NotExistException() = default;

std::int32_t NotExistException::GetTypeCodeInternal() const { return 257; }

}  // namespace Kel::System::Ve::Exceptions
