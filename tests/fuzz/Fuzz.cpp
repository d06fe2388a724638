#include "Fuzz.h"

#include <Kel/Core/AppDomain.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>

using Kel::System::Ve::Internal::ServiceFactory;

std::map<std::string, Target::Run>& Target::All() {
    static std::map<std::string, Run> all;
    return all;
}

void Require(bool holds, const char* property) {
    if (!holds) {
        std::cerr << "This does not hold: " << property << std::endl;
        std::abort();
    }
}

ServiceFactory& Factory() {
    // Never destroyed, and so no leak.
    static auto& appDomain = *new Kel::AppDomain;
    if (Kel::Singleton<Kel::AppDomain>::pInstance == nullptr) {
        Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain;
        ServiceFactory::CreateServiceFactory();
    }
    return *ServiceFactory::GetInstance();
}

// What the fuzzer calls. The environment names the target.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread.
    static const auto target = Target::All().at(std::getenv("KEL_FUZZ_TARGET"));
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    target(input);
    return 0;
}
