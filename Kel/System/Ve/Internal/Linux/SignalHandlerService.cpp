#include <Kel/System/Ve/Internal/Linux/SignalHandlerService.h>

#include <Kel/Core/FormatMessage.h>
#include <Kel/Core/StackTrace.h>
#include <Kel/System/Ve/Internal/Linux/SignalContext.h>

#include <execinfo.h>
#include <signal.h>
#include <ucontext.h>

#include <cerrno>
#include <iterator>

namespace Kel::System::Ve::Internal::Linux {

void (*SignalHandlerService::pThrowExceptionCallback)() = nullptr;
void (*SignalHandlerService::pTerminateCallback)(const BasicString&) = nullptr;
__thread int SignalHandlerService::exceptionCode = 0;

namespace {

const char* NameOf(int signal) {
    switch (signal) {
        case SIGFPE:
            return "SIGFPE";
        case SIGSEGV:
            return "SIGSEGV";
        case SIGILL:
            return "SIGILL";
        default:
            return "";
    }
}

}  // namespace

SignalHandlerService::SignalHandlerService()
    : ServiceObjectBase("SignalHandlerService", ServiceType::SignalHandler, true) {}

void SignalHandlerService::Setup(void (*throwExceptionCallback)(), void (*terminateCallback)(const BasicString&)) {
    // Its first use loads a library, for which a crash is not the time.
    void* address = nullptr;
    backtrace(&address, 1);

    pThrowExceptionCallback = throwExceptionCallback;
    pTerminateCallback = terminateCallback;
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = &StackTraceHandler;
    sigaction(SIGSEGV, &action, nullptr);
    sigaction(SIGILL, &action, nullptr);
    sigaction(SIGFPE, &action, nullptr);
}

void SignalHandlerService::StackTraceHandler(int signal, siginfo_t* /*info*/, void* context) {
    const int errorNumber = errno;
    BasicString report = FormatMessage("Signal {} occured.\r\nStacktrace:\r\n", {FormatArgument(NameOf(signal))});
    void* addresses[64] = {};
    const int count = backtrace(addresses, static_cast<int>(std::size(addresses)));
    const void* const interrupted =
        context != nullptr ? InterruptedInstruction(*static_cast<const ucontext_t*>(context)) : nullptr;
    // Without the frame of this handler.
    report += FormatCrashTrace(addresses + 1, count - 1, interrupted);
    if (pTerminateCallback != nullptr) {
        pTerminateCallback(report);
    }
    errno = errorNumber;
}

void SignalHandlerService::ThrowHandler(int signal, siginfo_t* info, void* context) {
    if (signal == SIGSEGV) {
        [[maybe_unused]] void* const volatile faultingAddress = info->si_addr;
    }
    exceptionCode = signal;
    // If nobody throws, the instruction raises the signal again.
    if (pThrowExceptionCallback != nullptr) {
        CallThrowException(*static_cast<ucontext_t*>(context));
    }
}

}  // namespace Kel::System::Ve::Internal::Linux
