#include <Kel/System/Ve/Exceptions/VeException.h>

#include <Kel/Core/RuntimeTypeInfo.h>
#include <Kel/Core/StackTrace.h>

#include <execinfo.h>

#include <iterator>
#include <typeinfo>
#include <utility>

namespace Kel::System::Ve::Exceptions {

VeException::VeException(FinishedText finished, std::shared_ptr<Exception> inner)
    : Exception(std::move(finished), std::move(inner)), stackTrace(CreateStackTrace()) {}

VeException::~VeException() = default;

BasicString VeException::Format(int /*indent*/, bool withInner) const {
    BasicString text =
        "Exception of type '" + RuntimeTypeInfo::GetTypeName(typeid(*this)) + "' was thrown\n" + GetMessage() + "\n";
    text += stackTrace + "\n";
    if (withInner && GetInnerException()) {
        text += "---\nInner exception: " + GetInnerException()->ToString();
    }
    return text;
}

std::int32_t VeException::GetTypeCodeInternal() const { return 256; }

// Never inlined: the first frame that is captured, and left out, must be this function's own.
[[gnu::noinline]] BasicString VeException::CreateStackTrace() {
    void* addresses[64];
    const int count = backtrace(addresses, static_cast<int>(std::size(addresses)));
    return FormatStackTrace(addresses + 1, count - 1);
}

}  // namespace Kel::System::Ve::Exceptions
