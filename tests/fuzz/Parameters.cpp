// The parameters of a program: each word is an argument, where it lies in the text.

#include "Fuzz.h"

#include <Kel/System/Ve/Internal/Linux/ProcessService.h>

#include <vector>

static const Target target("Parameters", [](std::istream& input) {
    const std::string text(std::istreambuf_iterator<char>(input), {});
    const Kel::BasicString program = "/bin/program";
    Kel::BasicString parameters = text;
    const std::vector<char*> arguments =
        Kel::System::Ve::Internal::Linux::ProcessService::ParseParameters(program, parameters);
    Require(arguments[0] == program.c_str(), "the program is the first");
    const std::string separators("\0 \t\n", 4);
    std::size_t count = 1;
    for (std::size_t begin = 0; (begin = text.find_first_not_of(separators, begin)) != std::string::npos; ++count) {
        const std::size_t end = std::min(text.find_first_of(separators, begin), text.size());
        Require(count < arguments.size() && arguments[count] == parameters.data() + begin &&
                    arguments[count] == text.substr(begin, end - begin),
                "each word is an argument");
        begin = end;
    }
    Require(count < arguments.size() && arguments[count] == nullptr, "behind the last there is a null");
});
