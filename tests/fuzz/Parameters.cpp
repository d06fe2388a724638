// The splitting of a program's parameters.

#include "Fuzz.h"

#include <Kel/System/Ve/Internal/Linux/ProcessService.h>

#include <vector>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    // So that short inputs, too, make thousands of arguments.
    const std::size_t times = std::size_t{1} << (input.Number<std::uint8_t>() % 12);
    const std::string part = input.Rest();
    std::string text;
    for (std::size_t i = 0; i < times && text.size() < 10000; ++i) {
        text += part;
    }
    const Kel::BasicString program = "/bin/program";
    Kel::BasicString parameters = text;
    const std::vector<char*> arguments =
        Kel::System::Ve::Internal::Linux::ProcessService::ParseParameters(program, parameters);

    const std::string separators("\0 \t\n", 4);
    std::size_t count = 1;
    for (std::size_t begin = 0; (begin = text.find_first_not_of(separators, begin)) != std::string::npos; ++count) {
        const std::size_t end = std::min(text.find_first_of(separators, begin), text.size());
        Require(count < arguments.size() && arguments[count] == parameters.data() + begin &&
                    arguments[count] == text.substr(begin, end - begin),
                "each word is an argument, where it lies in the text");
        begin = end;
    }
    Require(arguments[0] == program.c_str(), "the program is the first");
    Require(arguments.size() > count && std::count(arguments.begin(), arguments.end(), nullptr) ==
                                            static_cast<std::ptrdiff_t>(arguments.size() - count),
            "behind the last there are nulls, and nowhere else");
    return 0;
}
