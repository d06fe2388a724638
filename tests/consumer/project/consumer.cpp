// A user's program, which hides its own symbols, as many products do. It shares the one singleton with the library,
// catches the library's exceptions by their types, casts its interfaces and finds its own functions in stack traces.

#include <Kel/Core/AppDomain.h>
#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Adapters/Runtime.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/MutexService.h>
#include <Kel/System/Ve/Internal/Linux/SignalHandlerService.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <signal.h>

#include <cstdlib>
#include <iostream>

using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::ServiceFactory;
using Kel::System::Ve::Internal::Linux::MutexService;
using Kel::System::Ve::Internal::Linux::SignalHandlerService;

Kel::BasicString trace;

// The compiler sees that nothing is thrown in here. Unless it is told otherwise, it leaves the unwinder of 32-bit ARM
// no way out.
[[gnu::noinline]] void CallWithoutThrowing(void (*volatile callback)() noexcept) {
    callback();
    callback = nullptr;
}

[[gnu::visibility("default")]] int main() {
    const Kel::System::Ve::Adapters::Runtime runtime;
    bool isCaught = false;
    try {
        runtime->CreateMessageQueue("/no-such-queue", true);
    } catch (const VeException&) {
        isCaught = true;
    }
    const auto mutex = Own(runtime->CreateMutex(false));
    Own(runtime->CreateSignalHandler())->Setup(nullptr, nullptr);
    struct sigaction action {};
    sigaction(SIGSEGV, nullptr, &action);
    CallWithoutThrowing([]() noexcept { trace = VeException("taken").GetStackTrace(); });
    const std::pair<const char*, bool> checks[] = {
        {"host and library find the same factory",
         &*runtime == Kel::Singleton<Kel::AppDomain>::pInstance->Find(typeid(ServiceFactory))},
        {"an exception is caught by its type", isCaught},
        {"an object is cast to its class", dynamic_cast<MutexService*>(mutex.get()) != nullptr},
        {"a function has one address", action.sa_sigaction == &SignalHandlerService::StackTraceHandler},
        {"a stack trace names the host's functions", trace.find("main") != Kel::BasicString::npos},
    };
    bool succeeded = true;
    for (const auto& [what, holds] : checks) {
        std::cout << (holds ? "ok: " : "FAILED: ") << what << '\n';
        succeeded = succeeded && holds;
    }
    return succeeded ? EXIT_SUCCESS : EXIT_FAILURE;
}
