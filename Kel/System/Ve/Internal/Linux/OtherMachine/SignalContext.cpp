#include <Kel/System/Ve/Internal/Linux/SignalContext.h>

#include <Kel/System/Ve/Internal/Linux/SignalHandlerService.h>

namespace Kel::System::Ve::Internal::Linux {

const void* InterruptedInstruction(const ucontext_t& /*context*/) { return nullptr; }

void CallThrowException(ucontext_t& /*context*/) {}

void SignalHandlerService::ThrowException() {
    if (pThrowExceptionCallback != nullptr) {
        pThrowExceptionCallback();
    }
}

}  // namespace Kel::System::Ve::Internal::Linux
