// Messages: whatever the format string, it comes to what the formatting library makes of it, or to the one exception
// that quotes it.

#include "Fuzz.h"

#include <fmt/format.h>

#include <climits>

static const Target target("Format", [](std::istream& input) {
    std::string format;
    std::getline(input, format, '\0');
    // A number of five digits would, as a width, take too much memory.
    for (std::size_t digits = 0, i = 0; i < format.size(); ++i) {
        digits = format[i] >= '0' && format[i] <= '9' ? digits + 1 : 0;
        format.resize(digits < 5 ? format.size() : i);
    }
    const auto compare = [&](const auto&... arguments) {
        std::string expected;
        try {
            expected = fmt::format(fmt::runtime(format), arguments...);
        } catch (const fmt::format_error& error) {
            expected =
                "Invalid String::Format(..) operation occurs with format string '" + format + "': " + error.what();
        }
        std::string actual;
        actual += Thrown([&] { actual = Kel::Exception(format.c_str(), arguments...).GetMessage(); });
        Require(actual == expected, "placeholders are replaced by their arguments, or what is refused is quoted");
    };
    compare("text", std::string("{0}"), -7, ULLONG_MAX, LLONG_MIN, 1.5F, -0.1, 'c', true);
});
