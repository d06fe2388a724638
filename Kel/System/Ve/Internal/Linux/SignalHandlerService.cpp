#include <Kel/System/Ve/Internal/Linux/SignalHandlerService.h>

#include <Kel/Core/FormatMessage.h>
#include <Kel/Core/StackTrace.h>

#include <execinfo.h>
#include <ucontext.h>

#include <cerrno>
#include <cstdint>
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

void SignalHandlerService::StackTraceHandler(int signal, siginfo_t* /*info*/, void* /*context*/) {
    const int errorNumber = errno;
    BasicString report = FormatMessage("Signal {} occured.\r\nStacktrace:\r\n", {FormatArgument(NameOf(signal))});
    void* addresses[64] = {};
    const int count = backtrace(addresses, static_cast<int>(std::size(addresses)));
    // Without the frame of this handler.
    report += FormatStackTrace(addresses + 1, count - 1);
    if (pTerminateCallback != nullptr) {
        pTerminateCallback(report);
    }
    errno = errorNumber;
}

#if defined(__arm__)

// The unwinder cannot pass a signal's frame here. So the handler returns, to ThrowException, as though the instruction
// had called that. The link register, which such a call overwrites, may hold the only copy of the address that the
// interrupted function returns to. The handler leaves it in ip; ThrowException gives it back, on return as well as when
// it is unwound. Other callers may have anything there: they do not rely on either register after a call.
extern "C" {

[[gnu::used]] static void KelCallThrowExceptionCallback() {
    if (SignalHandlerService::pThrowExceptionCallback != nullptr) {
        SignalHandlerService::pThrowExceptionCallback();
    }
}

// ThrowException, without the detour through the linker's tables, which overwrites ip.
[[gnu::visibility("hidden")]] void KelThrowException();
}

// The stack pointer may be anywhere when an instruction fails, but has to be a multiple of 8 in a call.
asm(R"(
    .pushsection .text
    .syntax unified
    .thumb
    .p2align 1
    .global _ZN3Kel6System2Ve8Internal5Linux20SignalHandlerService14ThrowExceptionEv
    .type _ZN3Kel6System2Ve8Internal5Linux20SignalHandlerService14ThrowExceptionEv, %function
    .hidden KelThrowException
    .global KelThrowException
    .type KelThrowException, %function
    .thumb_func
_ZN3Kel6System2Ve8Internal5Linux20SignalHandlerService14ThrowExceptionEv:
    .thumb_func
KelThrowException:
    .fnstart
    push {r4, ip, lr}
    .save {r4, lr, pc}          @ lr is what was in ip, pc the return address
    mov r4, sp
    .setfp r4, sp
    bic r3, r4, #7
    mov sp, r3
    bl KelCallThrowExceptionCallback
    mov sp, r4
    pop {r4, lr}
    pop {pc}
    .fnend
    .size _ZN3Kel6System2Ve8Internal5Linux20SignalHandlerService14ThrowExceptionEv, . - _ZN3Kel6System2Ve8Internal5Linux20SignalHandlerService14ThrowExceptionEv
    .popsection
)");

#else

void SignalHandlerService::ThrowException() {
    if (pThrowExceptionCallback != nullptr) {
        pThrowExceptionCallback();
    }
}

#endif

void SignalHandlerService::ThrowHandler(int signal, siginfo_t* info, void* context) {
    if (signal == SIGSEGV) {
        [[maybe_unused]] void* const volatile faultingAddress = info->si_addr;
    }
    exceptionCode = signal;
    // If nobody throws, the instruction raises the signal again.
    if (pThrowExceptionCallback == nullptr) {
        return;
    }
#if defined(__arm__)
    constexpr unsigned long thumb = 1U << 5U;
    constexpr unsigned long conditionsOfItBlock = 0x0600FC00;
    mcontext_t& registers = static_cast<ucontext_t*>(context)->uc_mcontext;
    const auto target = reinterpret_cast<std::uintptr_t>(&KelThrowException);
    registers.arm_ip = registers.arm_lr;
    registers.arm_lr = (registers.arm_pc + 2) | 1U;
    registers.arm_pc = target & ~std::uintptr_t{1};
    registers.arm_cpsr &= ~(conditionsOfItBlock | thumb);
    registers.arm_cpsr |= (target & 1U) != 0 ? thumb : 0;
#elif defined(__x86_64__) || defined(__aarch64__)
    // The unwinder passes the signal's frame and restores the registers from it, but not the signal mask,
    const int errorNumber = errno;
    const auto& interrupted = *static_cast<const ucontext_t*>(context);
    pthread_sigmask(SIG_SETMASK, &interrupted.uc_sigmask, nullptr);
#if defined(__x86_64__)
    // nor how the program calculates, which the kernel sets back for a handler.
    asm volatile("ldmxcsr %0\n\tfldcw %1"
                 :
                 : "m"(interrupted.uc_mcontext.fpregs->mxcsr), "m"(interrupted.uc_mcontext.fpregs->cwd));
#endif
    ThrowException();
    errno = errorNumber;
#else
    static_cast<void>(context);
#endif
}

}  // namespace Kel::System::Ve::Internal::Linux
