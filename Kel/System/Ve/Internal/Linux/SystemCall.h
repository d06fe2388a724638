#pragma once

#include <Kel/Core/ErrorText.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

namespace Kel::System::Ve::Internal::Linux {

// How a failed call becomes an exception. The checks are named after the calls' convention for failures. The message's
// {0} is the operation, by itself the function that calls the check, and {1} the text of the error.

template <typename ExceptionType>
[[noreturn, gnu::cold, gnu::noinline]] void ThrowFailure(int errorNumber, const char* message, const char* operation) {
    throw ExceptionType(message, operation, ErrorText(errorNumber));
}

/// For calls that return 0 or the number of an error, as those of pthread do.
template <typename ExceptionType = Exceptions::VeException>
void CheckReturnedCode(int code, const char* message, const char* operation = __builtin_FUNCTION()) {
    if (code != 0) {
        ThrowFailure<ExceptionType>(code, message, operation);
    }
}

}  // namespace Kel::System::Ve::Internal::Linux
