// The parameters of a program: each word is an argument, where it lies in the text.

#include "Fuzz.h"

#include <Kel/System/Ve/Internal/Linux/ProcessService.h>

#include <vector>

static const Target target("Parameters", [](std::istream& input) {
    const std::string text(std::istreambuf_iterator<char>(input), {});
    const Kel::BasicString program = "/bin/program";
    Kel::BasicString parameters = text;
    const auto arguments = Kel::System::Ve::Internal::Linux::ProcessService::ParseParameters(program, parameters);
    Require(arguments.at(0) == program.c_str(), "the program is the first");
    const std::string separators("\0 \t\n", 4);
    std::size_t count = 1;
    for (std::size_t begin = 0; (begin = text.find_first_not_of(separators, begin)) != std::string::npos; ++count) {
        const std::string word = text.substr(begin, text.find_first_of(separators, begin) - begin);
        Require(arguments.at(count) == parameters.data() + begin, "each word is an argument");
        Require(arguments.at(count) == word, "each argument ends with its word");
        begin += word.size();
    }
    Require(arguments.at(count) == nullptr, "behind the last there is a null");
});
