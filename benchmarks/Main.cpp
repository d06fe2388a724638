#include "TwoThreads.h"

#include <Kel/Core/AppDomain.h>

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <utility>

namespace {

// How many readings are to be taken; 0 when that is not known, and then they are not told.
int allReadings = 0;
std::atomic<int> readings{0};

// Those that this process may run on.
std::vector<int> UsableProcessors() {
    cpu_set_t set;
    Expect(sched_getaffinity(0, sizeof set, &set) == 0);
    std::vector<int> processors;
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(static_cast<unsigned int>(processor), &set)) {
            processors.push_back(processor);
        }
    }
    return processors;
}

}  // namespace

benchmark::IterationCount fixedIterations = 0;

void TellReading(const std::string& name) {
    if (allReadings == 0) {
        return;
    }
    const int reading = ++readings;
    if (isatty(STDERR_FILENO) == 1) {
        std::fprintf(stderr, "\r\033[K%d of %d: %s%s", reading, allReadings, name.c_str(),
                     reading == allReadings ? "\n" : "");
    } else if (reading % 100 == 0 || reading == allReadings) {
        std::fprintf(stderr, "%d of %d: %s\n", reading, allReadings, name.c_str());
    }
}

std::string UniqueName(const char* prefix) {
    static std::atomic<int> number{0};
    return prefix + std::to_string(getpid()) + "-" + std::to_string(++number);
}

std::vector<Processors> OneAndTwoProcessors() {
    // As it is at the start: later this may be a thread that is bound.
    static const std::vector<Processors> pairs = [] {
        const std::vector<int> processors = UsableProcessors();
        std::vector<Processors> result{{" on one processor", processors[0], processors[0]}};
        if (processors.size() > 1) {
            result.push_back({" on two processors", processors[0], processors[1]});
        }
        return result;
    }();
    return pairs;
}

int main(int count, char** arguments) {
    benchmark::Initialize(&count, arguments);
    const std::pair<const char*, std::function<void(int)>> options[] = {
        {"--readings=", [](int value) { allReadings = value; }},
        {"--iterations=", [](int value) { fixedIterations = value; }}};
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
    Kel::AppDomain appDomain;
    Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain;
    ServiceFactory::CreateServiceFactory();
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
    ServiceFactory::DisposeServiceFactory();
}
