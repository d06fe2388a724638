#pragma once

#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

namespace Kel {

/// One argument of a message: a number, a character, a text or a pointer. Enumerations count as numbers, pointers to
/// anything but characters as addresses. Texts are not copied, so an argument lives no longer than what it was made of.
class FormatArgument {
public:
    /// What an argument is kept as.
    using Value = std::variant<bool, char, int, unsigned int, long long, unsigned long long, float, double, long double,
                               const char*, std::string_view, const void*>;

    /// Takes what the class comment says; refuses anything else at compile time.
    template <typename T>
    explicit FormatArgument(const T& argument) : value(Convert(argument)) {}

    /// The argument as it is kept.
    const Value& Get() const { return value; }

private:
    template <typename T>
    static Value Convert(const T& argument) {
        using Decayed = std::decay_t<T>;
        if constexpr (std::is_enum_v<T>) {
            return Convert(static_cast<std::underlying_type_t<T>>(argument));
        } else if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, char> || std::is_floating_point_v<T>) {
            return argument;
        } else if constexpr (std::is_integral_v<T> && sizeof(T) <= sizeof(int)) {
            return static_cast<std::conditional_t<std::is_signed_v<T>, int, unsigned int>>(argument);
        } else if constexpr (std::is_integral_v<T>) {
            return static_cast<std::conditional_t<std::is_signed_v<T>, long long, unsigned long long>>(argument);
        } else if constexpr (std::is_same_v<Decayed, const char*> || std::is_same_v<Decayed, char*>) {
            return static_cast<const char*>(argument);
        } else if constexpr (std::is_null_pointer_v<T>) {
            return static_cast<const void*>(nullptr);
        } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
            return static_cast<std::string_view>(argument);
        } else if constexpr (std::is_pointer_v<Decayed> && std::is_function_v<std::remove_pointer_t<Decayed>>) {
            return reinterpret_cast<const void*>(static_cast<Decayed>(argument));
        } else {
            static_assert(std::is_convertible_v<const T&, const void*>, "A message cannot print this type.");
            return static_cast<const void*>(argument);
        }
    }

    Value value;
};

}  // namespace Kel
