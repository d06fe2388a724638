#pragma once

#include <Kel/Core/ErrorText.h>
#include <Kel/Core/FinishedText.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <cerrno>

namespace Kel::System::Ve::Internal::Linux {

// How a failed call becomes an exception. The checks are named after the calls' convention for failures. The message's
// {0} is the operation, by itself the function that calls the check, and {1} the text of the error.

[[noreturn, gnu::cold, gnu::noinline]] inline void ThrowFailure(int errorNumber, const char* message,
                                                                const char* operation = __builtin_FUNCTION()) {
    throw Exceptions::VeException(message, operation, ErrorText(errorNumber));
}

/// The message is the text of the error and nothing else.
[[noreturn, gnu::cold, gnu::noinline]] inline void ThrowErrorText(int errorNumber) {
    throw Exceptions::VeException(FinishedText{ErrorText(errorNumber)});
}

/// For calls that return 0 or the number of an error, as those of pthread do.
inline void CheckReturnedCode(int code, const char* message, const char* operation = __builtin_FUNCTION()) {
    if (code != 0) {
        ThrowFailure(code, message, operation);
    }
}

/// The same; the message is the text of the error and nothing else.
inline void CheckReturnedCode(int code) {
    if (code != 0) {
        ThrowErrorText(code);
    }
}

/// For calls that return -1 and leave the number of an error in errno.
inline void CheckErrno(int result, const char* message, const char* operation = __builtin_FUNCTION()) {
    if (result == -1) {
        ThrowFailure(errno, message, operation);
    }
}

}  // namespace Kel::System::Ve::Internal::Linux
