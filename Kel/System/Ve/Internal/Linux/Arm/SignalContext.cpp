#include <Kel/System/Ve/Internal/Linux/SignalContext.h>

#include <Kel/System/Ve/Internal/Linux/SignalHandlerService.h>

#include <cstdint>

// The unwinder cannot pass a signal's frame here. So the handler returns, to ThrowException, as though the instruction
// had called that. The link register, which such a call overwrites, may hold the only copy of the address that the
// interrupted function returns to. The handler leaves it in ip; ThrowException gives it back, on return as well as when
// it is unwound. Other callers may have anything there: they do not rely on either register after a call.
extern "C" {

[[gnu::used]] static void KelCallThrowExceptionCallback() {
    using Kel::System::Ve::Internal::Linux::SignalHandlerService;
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

namespace Kel::System::Ve::Internal::Linux {

const void* InterruptedInstruction(const ucontext_t& context) {
    return reinterpret_cast<const void*>(context.uc_mcontext.arm_pc);
}

void CallThrowException(ucontext_t& context) {
    constexpr unsigned long thumb = 1U << 5U;
    constexpr unsigned long conditionsOfItBlock = 0x0600FC00;
    mcontext_t& registers = context.uc_mcontext;
    registers.arm_ip = registers.arm_lr;
    registers.arm_lr = (registers.arm_pc + 2) | 1U;
    // The lowest bit of a function's address tells its instruction set.
    const auto function = reinterpret_cast<std::uintptr_t>(&KelThrowException);
    registers.arm_pc = function & ~std::uintptr_t{1};
    registers.arm_cpsr &= ~(conditionsOfItBlock | thumb);
    registers.arm_cpsr |= (function & 1U) != 0 ? thumb : 0;
}

}  // namespace Kel::System::Ve::Internal::Linux
