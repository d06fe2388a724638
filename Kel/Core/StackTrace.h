#pragma once

#include <Kel/Core/BasicString.h>

namespace Kel {

/// Returns one line, "   at: " and the function's name, for each of `count` return addresses, up to the first that lies
/// in no loaded module. The names come from the modules' dynamic symbols; where there is none, the line shows the
/// module and the address.
BasicString FormatStackTrace(void* const* addresses, int count);

}  // namespace Kel
