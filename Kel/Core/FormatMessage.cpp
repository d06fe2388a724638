#include <Kel/Core/FormatMessage.h>

#include <Kel/Core/BasicStringFormatExceptionHandler.h>

#include <fmt/args.h>
#include <fmt/format.h>

namespace Kel {

// The formatting library is used in this file only, so that its version can change without touching anything else.
BasicString FormatMessage(const char* format, std::initializer_list<FormatArgument> arguments) {
    using Handler = System::Core::Impl::BasicStringFormatExceptionHandler;
    if (format == nullptr) {
        Handler::Invoke("", "format string is null");
    }
    fmt::dynamic_format_arg_store<fmt::format_context> store;
    store.reserve(arguments.size(), 0);
    for (const FormatArgument& argument : arguments) {
        std::visit(
            [&](auto value) {
                if constexpr (std::is_same_v<decltype(value), const char*>) {
                    if (value == nullptr) {
                        Handler::Invoke(format, "string pointer is null");
                    }
                    // A view: the store would copy a character pointer's text.
                    store.push_back(std::string_view(value));
                } else {
                    store.push_back(value);
                }
            },
            argument.Get());
    }
    try {
        return fmt::vformat(format, store);
    } catch (const fmt::format_error& error) {
        Handler::Invoke(format, error.what());
    }
}

}  // namespace Kel
