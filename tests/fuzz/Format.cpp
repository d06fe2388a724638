// Messages: whatever the format string, it comes to what the formatting library makes of it, or the one exception comes
// that quotes it.

#include "Fuzz.h"

#include <Kel/Core/FormatMessage.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <fmt/args.h>
#include <fmt/format.h>

#include <array>
#include <cctype>
#include <vector>

using Kel::FormatArgument;
using Kel::FormatMessage;

namespace {

enum class Colour : std::int16_t {};

struct Arguments {
    template <typename T>
    void Add(T value) {
        values.emplace_back(value);
        store.push_back(value);
        isLarge = isLarge || static_cast<double>(value) > 9999;
    }

    void AddAny(Input& input, const std::string& text) {
        switch (input.Number<std::uint8_t>() % 12) {
            case 0:
                return Add(input.Number<std::uint8_t>() % 2 != 0);
            case 1:
                return Add(input.Number<char>());
            case 2:
                return Add(input.Number<std::int32_t>());
            case 3:
                return Add(input.Number<std::uint32_t>());
            case 4:
                return Add(input.Number<std::int64_t>());
            case 5:
                return Add(input.Number<std::uint64_t>());
            case 6: {
                const auto number = input.Number<std::int16_t>();
                isLarge = isLarge || number > 9999;
                values.emplace_back(static_cast<Colour>(number));
                return store.push_back(number);
            }
            case 7:
                return Add(input.Number<float>());
            case 8:
                return Add(input.Number<double>());
            case 9:
                values.emplace_back(static_cast<const void*>(text.data()));
                return store.push_back(static_cast<const void*>(text.data()));
            case 10:
                hasNull = true;
                values.emplace_back(static_cast<const char*>(nullptr));
                return store.push_back("");
            default:
                values.emplace_back(text);
                store.push_back(text);
        }
    }

    std::vector<FormatArgument> values;
    fmt::dynamic_format_arg_store<fmt::format_context> store;
    bool hasNull = false;
    // As a width it would take too much memory.
    bool isLarge = false;
};

bool HasLongNumber(const std::string& text) {
    std::size_t digits = 0;
    return std::any_of(text.begin(), text.end(), [&](unsigned char character) {
        digits = std::isdigit(character) != 0 ? digits + 1 : 0;
        return digits > 4;
    });
}

std::string Fill(const char* format, const std::vector<FormatArgument>& values) {
    switch (values.size()) {
        case 0:
            return FormatMessage(format, {});
        case 1:
            return FormatMessage(format, {values[0]});
        case 2:
            return FormatMessage(format, {values[0], values[1]});
        default:
            return FormatMessage(format, {values[0], values[1], values[2]});
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    std::array<std::string, 3> texts;
    Arguments arguments;
    for (std::size_t count = input.Number<std::uint8_t>() % 4; arguments.values.size() < count;) {
        std::string& text = texts[arguments.values.size()];
        text = input.Text();
        arguments.AddAny(input, text);
    }
    const std::string format = UpToNull(input.Rest());
    if (HasLongNumber(format) || (arguments.isLarge && format.find(':') < format.rfind('{'))) {
        return -1;
    }
    const std::string refusal = "0 Invalid String::Format(..) operation occurs with format string '" + format + "': ";
    std::string expected;
    std::string expectedThrown;
    try {
        expected = arguments.hasNull ? "" : fmt::vformat(format, arguments.store);
        expectedThrown = arguments.hasNull ? refusal + "string pointer is null" : "";
    } catch (const fmt::format_error& error) {
        expectedThrown = refusal + error.what();
    }
    std::string filled;
    const std::string thrown = Thrown([&] { filled = Fill(format.c_str(), arguments.values); });
    Require(thrown == expectedThrown, "what is refused is quoted, and nothing else is");
    Require(filled == expected, "placeholders are replaced by their arguments");

    // Exceptions are made of the same; they take their arguments one by one.
    std::string message;
    const std::string direct = Thrown([&] {
        message = FormatMessage(format.c_str(), {FormatArgument(texts[0]), FormatArgument(7)});
    });
    const std::string plain = Thrown([&] { throw Kel::Exception(format.c_str(), texts[0], 7); });
    const std::string traced =
        Thrown([&] { throw Kel::System::Ve::Exceptions::VeException(format.c_str(), texts[0], 7); });
    Require(
        plain == (direct.empty() ? "0 " + message : direct) && traced == (direct.empty() ? "256 " + message : direct),
        "an exception has the message, or is the one that says that it is broken");
    return 0;
}
