#include <Kel/System/Ve/Internal/Linux/SignalContext.h>

#include <Kel/System/Ve/Internal/Linux/SignalHandlerService.h>

#include <signal.h>

#include <cerrno>

namespace Kel::System::Ve::Internal::Linux {

const void* InterruptedInstruction(const ucontext_t& context) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a register.
    return reinterpret_cast<const void*>(context.uc_mcontext.pc);
}

void CallThrowException(ucontext_t& context) {
    const int errorNumber = errno;
    // The unwinder restores the registers of the interrupted function, but not the signal mask.
    pthread_sigmask(SIG_SETMASK, &context.uc_sigmask, nullptr);
    SignalHandlerService::ThrowException();
    errno = errorNumber;
}

void SignalHandlerService::ThrowException() {
    if (pThrowExceptionCallback != nullptr) {
        pThrowExceptionCallback();
    }
}

}  // namespace Kel::System::Ve::Internal::Linux
