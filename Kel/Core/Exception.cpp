#include <Kel/Core/Exception.h>

#include <Kel/Core/RuntimeTypeInfo.h>

#include <algorithm>
#include <typeinfo>
#include <utility>

namespace Kel {

Exception::Exception(FinishedText finished, std::shared_ptr<Exception> inner)
    // NOLINTNEXTLINE(bugprone-throw-keyword-missing): a pointer to an exception, stored.
    : message(std::move(finished.text)), innerException(std::move(inner)) {}

Exception::~Exception() = default;

std::shared_ptr<Exception> Exception::Clone() const {
    return std::make_shared<Exception>(FinishedText{message}, innerException);
}

BasicString Exception::Format(int indent, bool withInner) const {
    const std::string prefix(3 * static_cast<std::size_t>(std::max(indent, 0)), ' ');
    BasicString text = prefix + message + " (" + RuntimeTypeInfo::GetTypeName(typeid(*this)) + ")";
    if (withInner && innerException) {
        text += "\n" + prefix + "InnerException:\n" + innerException->Format(indent + 1, true);
    }
    return text;
}

std::int32_t Exception::GetTypeCodeInternal() const { return 0; }

BasicString Exception::ToString() const { return Format(0, true); }

const char* Exception::what() const noexcept { return message.c_str(); }

}  // namespace Kel
