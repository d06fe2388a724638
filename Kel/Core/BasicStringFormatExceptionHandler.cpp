#include <Kel/Core/BasicStringFormatExceptionHandler.h>

#include <Kel/Core/Exception.h>

#include <string>

namespace Kel::System::Core::Impl {

void BasicStringFormatExceptionHandler::Invoke(const char* formatString, const char* errorText) {
    throw Exception(FinishedText{std::string("Invalid String::Format(..) operation occurs with format string '") +
                                 formatString + "': " + errorText});
}

}  // namespace Kel::System::Core::Impl
