// Runs a fuzz target, without the fuzzer, with all inputs in the folders that are named on the command line.

#include "Fuzz.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

int main(int count, char** arguments) {
    std::size_t inputs = 0;
    for (int i = 1; i < count; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) {
            std::cout << entry.path() << std::endl;
            std::ifstream file(entry.path(), std::ios::binary);
            // With nothing behind it that could be read without being noticed.
            const std::vector<char> input{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
            ++inputs;
        }
    }
    std::cout << inputs << " inputs" << std::endl;
    return inputs > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
