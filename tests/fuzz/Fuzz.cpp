#include "Fuzz.h"

#include <Kel/System/Ve/Adapters/Runtime.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>

using Kel::System::Ve::Internal::ServiceFactory;

void Require(bool holds, const char* property) {
    if (!holds) {
        std::cerr << "This does not hold: " << property << std::endl;
        std::abort();
    }
}

ServiceFactory& Factory() {
    static const Kel::System::Ve::Adapters::Runtime runtime;
    return *runtime;
}

// What the fuzzer calls. The environment names the target.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread.
    static const auto target = Target::all.at(std::getenv("KEL_FUZZ_TARGET"));
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    target(input);
    return 0;
}
