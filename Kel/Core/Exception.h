#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/Core/FinishedText.h>
#include <Kel/Core/FormatMessage.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <utility>

namespace Kel {

/// The framework's exception: a message and, optionally, the exception that caused it. Immutable once made.
/// The order of the virtual operations is part of the binary interface.
class KEL_API Exception : public std::exception {
public:
    /// The message is `format` filled with `arguments`, see `FormatMessage`.
    template <typename... Arguments>
    explicit Exception(const char* format, const Arguments&... arguments)
        : Exception(FinishedText{FormatMessage(format, {FormatArgument(arguments)...})}) {}

    /// The same, caused by `inner`.
    template <typename... Arguments>
    Exception(std::shared_ptr<Exception> inner, const char* format, const Arguments&... arguments)
        : Exception(FinishedText{FormatMessage(format, {FormatArgument(arguments)...})}, std::move(inner)) {}

    /// The message is the text as it stands.
    explicit Exception(FinishedText finished, std::shared_ptr<Exception> inner = nullptr);

    ~Exception() override;

    /// Returns a plain `Kel::Exception` with the same message and inner exception, whatever the type of this one.
    virtual std::shared_ptr<Exception> Clone() const;

    /// Returns the text of the exception, indented by `indent` steps of three spaces; with that of the inner exception,
    /// if there is one and `withInner` is set.
    virtual BasicString Format(int indent, bool withInner) const;

    /// 0; each exception type that has a number overrides this.
    virtual std::int32_t GetTypeCodeInternal() const;

    /// `Format(0, true)`.
    BasicString ToString() const;

    /// The message alone.
    const BasicString& GetMessage() const { return message; }
    /// Empty when there is none.
    const std::shared_ptr<Exception>& GetInnerException() const { return innerException; }
    /// A number for each exception type; 0 for `Kel::Exception` itself.
    std::int32_t GetTypeCode() const { return GetTypeCodeInternal(); }

    /// The message.
    const char* what() const noexcept override;

private:
    BasicString message;
    std::shared_ptr<Exception> innerException;
};

}  // namespace Kel
