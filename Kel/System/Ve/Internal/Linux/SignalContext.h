#pragma once

#include <ucontext.h>

namespace Kel::System::Ve::Internal::Linux {

// What a signal handler does with the thread that it has interrupted. It depends on the machine: each has a folder of
// its own with the definitions.

/// Returns the address of the instruction that was interrupted; null where it is not known.
const void* InterruptedInstruction(const ucontext_t& context);

/// Has the thread call `SignalHandlerService::ThrowException` in place of the instruction that was interrupted: at once
/// where an exception can leave the handler, otherwise when the handler returns.
void CallThrowException(ucontext_t& context);

}  // namespace Kel::System::Ve::Internal::Linux
