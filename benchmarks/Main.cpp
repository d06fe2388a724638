#include "Benchmark.h"
#include "Factory.h"
#include "Families.h"

#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

int main(int count, char** arguments) {
    benchmark::Initialize(&count, arguments);
    const std::pair<const char*, void (*)(int)> options[] = {
        {"--readings=", [](int value) { SetReadings(value); }},
        {"--iterations=", [](int value) { SetIterations(value); }}};
    for (const auto& [name, set] : options) {
        if (count > 1 && std::strncmp(arguments[1], name, std::strlen(name)) == 0) {
            set(std::atoi(arguments[1] + std::strlen(name)));
            arguments[1] = arguments[0];
            ++arguments;
            --count;
        }
    }
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) {
        return 1;
    }
    // The C library takes short cuts until a program has started its first thread.
    std::thread([] {}).join();
    const Runtime runtime;
    RegisterLocks();
    RegisterWaiting();
    RegisterThreads();
    RegisterSockets();
    RegisterMessageQueues();
    RegisterFiles();
    RegisterPrograms();
    RegisterObjects();
    RegisterFailures();
#ifdef WITH_BOOST
    RegisterBoost();
#endif
#ifdef WITH_POCO
    RegisterPoco();
#endif
    benchmark::RunSpecifiedBenchmarks();
}
