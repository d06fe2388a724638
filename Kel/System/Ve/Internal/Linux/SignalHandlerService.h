#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/SignalHandlerServiceBase.h>

#include <signal.h>

namespace Kel::System::Ve::Internal::Linux {

/// The signal handler service on Linux.
class KEL_API SignalHandlerService final : public SignalHandlerServiceBase {
public:
    SignalHandlerService();

    /// As in `ISignalHandlerService`.
    void Setup(void (*throwExceptionCallback)(), void (*terminateCallback)(const BasicString&)) override;

    /// The handler that `Setup` installs: gives the report to `pTerminateCallback`.
    static void StackTraceHandler(int signal, siginfo_t* info, void* context);

    /// A handler that programs install themselves (sigaction with SA_SIGINFO, for SIGSEGV, SIGILL or SIGFPE), to have
    /// such a signal call `pThrowExceptionCallback` in place of the instruction that raised it. That callback throws an
    /// exception; it reaches the function with the instruction when that is compiled with -fnon-call-exceptions, and
    /// its callers in any case when all of them are compiled with -funwind-tables. clang ignores
    /// -fnon-call-exceptions, and an exception cannot pass a call of a function that clang sees to throw nothing: call
    /// it through a volatile pointer. The callback must throw: if it returns, or is null, the signal recurs; on 32-bit
    /// ARM the program goes on two bytes behind the instruction when the callback returns. Sets `exceptionCode`. On
    /// machines other than ARM, 32 or 64 bits, and x86-64, it does nothing else.
    static void ThrowHandler(int signal, siginfo_t* info, void* context);

    /// Calls `pThrowExceptionCallback` unless it is null.
    static void ThrowException();

    /// @{
    /// The process's callbacks, as `Setup` has set them; null when there are none.
    static void (*pThrowExceptionCallback)();
    static void (*pTerminateCallback)(const BasicString&);
    /// @}

    /// The number of the last signal that `ThrowHandler` has caught on this thread. Part of each thread from its
    /// start: nothing is allocated when it is first used.
    [[gnu::tls_model("initial-exec")]] static __thread int exceptionCode;
};

}  // namespace Kel::System::Ve::Internal::Linux
