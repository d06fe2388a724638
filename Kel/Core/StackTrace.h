#pragma once

#include <Kel/Core/BasicString.h>

namespace Kel {

/// Returns one line, "   at: " and the function's name, for each of `count` return addresses, up to the first that lies
/// in no loaded module. The names come from the modules' dynamic symbols; where there is none, or a very long one, the
/// line shows the module, the symbol if any, and the address. Needs no more than 80 KiB of the stack, whatever the
/// names.
BasicString FormatStackTrace(void* const* addresses, int count);

/// The same for a thread that a signal has interrupted at the instruction `interrupted`, which is among the addresses.
BasicString FormatCrashTrace(void* const* addresses, int count, const void* interrupted);

}  // namespace Kel
