#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/Core/FormatArgument.h>

#include <initializer_list>

namespace Kel {

/// Returns `format` with its placeholders ("{0}" by position, "{}" in order, "{:d}" decimal) filled with `arguments`.
/// Throws `Kel::Exception` when the format string is broken or does not match the arguments. Thread-safe.
KEL_API BasicString FormatMessage(const char* format, std::initializer_list<FormatArgument> arguments);

}  // namespace Kel
