// Names of service types: a word is a name or not, whatever surrounds it, and every number can be printed.

#include "Fuzz.h"

#include <Kel/System/Ve/ServiceType.h>

#include <sstream>

using Kel::System::Ve::ServiceType;

namespace {

// Returns whether the number has a name.
bool Print(std::int32_t number, std::string& text) {
    std::ostringstream stream;
    stream << static_cast<ServiceType>(number);
    text = stream.str();
    Require(!stream.bad() && stream.fail() == (text == std::to_string(number)), "a number without a name is a failure");
    return !stream.fail();
}

void Parse(const std::string& text, std::int32_t before) {
    std::istringstream words(text);
    std::string word;
    words >> word;
    std::istringstream stream(text);
    auto type = static_cast<ServiceType>(before);
    stream >> type;
    const auto number = static_cast<std::int32_t>(type);
    std::string name;
    Require(stream.fail() ? number == before : Print(number, name) && name == word,
            "a name is read as its type, anything else leaves what there was");
    stream.clear();
    words.clear();
    Require(stream.tellg() == words.tellg(), "one word is read and no more");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const auto number = input.Number<std::int32_t>();
    for (const std::int32_t printed : {number, number % 32}) {
        std::string text;
        if (Print(printed, text)) {
            Require(printed >= 0 && printed < 18, "few numbers have names");
            std::istringstream stream(" " + text);
            auto type = static_cast<ServiceType>(-1);
            Require(!(stream >> type).fail() && static_cast<std::int32_t>(type) == printed, "a name is its type's");
        }
    }
    Parse(input.Rest(), number);
    return 0;
}
