#pragma once

#include <Kel/Core/Export.h>

#include <cstddef>
#include <string>
#include <utility>

namespace Kel {

/// The character string (8-bit, standard allocator) in which every name, path and message crosses the interface.
/// A `std::string` in all but one respect: a literal null is refused at compile time, so that `Create...(0, 5)` cannot
/// pick an overload that takes a name. A null that only turns up at run time throws `std::logic_error`.
class KEL_API BasicString : public std::string {
public:
    using std::string::string;

    BasicString() = default;
    /// @{
    /// The same text. Implicit: wherever the library takes a text, it takes a `std::string`.
    BasicString(const std::string& text) : std::string(text) {}
    BasicString(std::string&& text) noexcept : std::string(std::move(text)) {}
    /// @}
    BasicString(std::nullptr_t) = delete;

    /// The empty string.
    static const BasicString Empty;
};

}  // namespace Kel
