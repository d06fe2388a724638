#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Exception.h>
#include <Kel/Core/Export.h>

#include <cstdint>
#include <memory>
#include <utility>

namespace Kel::System::Ve::Exceptions {

/// A failed operation of the library: the message names the operation and the reason, the stack trace the place.
class KEL_API VeException : public Exception {
public:
    /// The message is `format` filled with `arguments`, see `FormatMessage`.
    template <typename... Arguments>
    explicit VeException(const char* format, const Arguments&... arguments)
        : VeException(FinishedText{FormatMessage(format, {FormatArgument(arguments)...})}) {}

    /// The same, caused by `inner`.
    template <typename... Arguments>
    VeException(std::shared_ptr<Exception> inner, const char* format, const Arguments&... arguments)
        : VeException(FinishedText{FormatMessage(format, {FormatArgument(arguments)...})}, std::move(inner)) {}

    /// The message is the text as it stands.
    explicit VeException(FinishedText finished, std::shared_ptr<Exception> inner = nullptr);

    ~VeException() override;

    /// Returns type, message and stack trace, and the text of the inner exception, if there is one and `withInner` is
    /// set. `indent` has no effect.
    BasicString Format(int indent, bool withInner) const override;

    /// 256.
    std::int32_t GetTypeCodeInternal() const override;

    /// One line, ended by CR LF, for each of up to 63 frames from the constructor outwards; may be empty.
    const BasicString& GetStackTrace() const { return stackTrace; }

private:
    static BasicString CreateStackTrace();

    BasicString stackTrace;
};

}  // namespace Kel::System::Ve::Exceptions
