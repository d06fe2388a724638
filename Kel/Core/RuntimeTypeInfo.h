#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>

#include <typeinfo>

namespace Kel {

/// Readable names of types and functions. Thread-safe.
class KEL_API RuntimeTypeInfo {
public:
    /// Returns the readable form of a mangled symbol; empty when `symbol` is null or cannot be demangled.
    static BasicString DemangleSymbol(const char* symbol);

    /// Returns the name of a type as messages print it, without "class ", "struct " and "enum ".
    /// Throws `Kel::Exception` when the name cannot be demangled.
    static BasicString GetTypeName(const std::type_info& type);
};

}  // namespace Kel
