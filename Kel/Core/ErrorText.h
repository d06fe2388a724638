#pragma once

#include <Kel/Core/BasicString.h>

namespace Kel {

/// Returns the system's text for an error number, in the words of `strerror`. Thread-safe; leaves `errno` alone.
BasicString ErrorText(int errorNumber);

}  // namespace Kel
