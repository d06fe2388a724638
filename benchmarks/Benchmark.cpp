#include "Benchmark.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace {

benchmark::IterationCount fixedIterations = 0;
int allReadings = 0;
std::atomic<int> readings{0};

}  // namespace

void SetIterations(benchmark::IterationCount count) { fixedIterations = count; }

void SetReadings(int count) { allReadings = count; }

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

void Configure(benchmark::internal::Benchmark& registered) {
    registered.UseRealTime();
    if (fixedIterations != 0) {
        registered.Iterations(fixedIterations);
    }
}

std::string UniqueName(const char* prefix) {
    static std::atomic<int> number{0};
    return prefix + std::to_string(getpid()) + "-" + std::to_string(++number);
}
