#pragma once

#include <Kel/Core/Export.h>

namespace Kel::System::Core::Impl {

/// What happens when a format string or its arguments are rejected.
class KEL_API BasicStringFormatExceptionHandler {
public:
    /// Throws `Kel::Exception` with a message that quotes both texts; neither is read as a format string.
    [[noreturn]] static void Invoke(const char* formatString, const char* errorText);
};

}  // namespace Kel::System::Core::Impl
