// Tries the inputs that are kept, without the fuzzer: each folder has the name of a target.

#include "Fuzz.h"

#include <filesystem>
#include <fstream>
#include <iostream>

int main(int /*count*/, char** arguments) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(arguments[1])) {
        if (entry.is_regular_file()) {
            std::cout << entry.path() << std::endl;
            std::ifstream input(entry.path(), std::ios::binary);
            Target::all.at(entry.path().parent_path().filename())(input);
        }
    }
}
