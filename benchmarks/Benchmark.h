#pragma once

#include <benchmark/benchmark.h>

#include <string>

// Each family does the same work in several ways: through the library, by the bare call, which is the limit, and with
// what a user would take instead. A benchmark's name is "family/work/way"; scripts/bench compares the ways of a work.
// The bare way does what the library has to do: the same calls, with the same attributes, their results looked at.

/// How often each benchmark does its work; 0, the default, for as often as a good reading needs.
void SetIterations(benchmark::IterationCount count);

/// How many readings are to be taken. When that is known, TellReading shows them.
void SetReadings(int count);

/// Shows which reading is being taken.
void TellReading(const std::string& name);

/// Measures in real time, as often as SetIterations says.
void Configure(benchmark::internal::Benchmark& registered);

/// A name that no other run of the benchmarks has.
std::string UniqueName(const char* prefix);

/// Registers a benchmark that is run by `run(state)`.
template <typename Run>
void RegisterRun(const std::string& name, Run run) {
    Configure(*benchmark::RegisterBenchmark(
        name.c_str(), [name, run, iterations = benchmark::IterationCount{0}](auto& state) mutable {
            // The runs that look for the number of iterations, each longer than the one before, are one reading.
            if (iterations == 0 || state.max_iterations <= iterations) {
                TellReading(name);
            }
            iterations = state.max_iterations;
            run(state);
        }));
}

/// Registers a benchmark that does `work()` again and again.
template <typename Work>
void Register(const std::string& name, Work work) {
    RegisterRun(name, [work](benchmark::State& state) mutable {
        for (auto _ : state) {
            work();
        }
    });
}

/// Registers a benchmark that does `work(object)` again and again, with an object that is made for each run: no object
/// is alive that the run does not need.
template <typename Object, typename Work>
void RegisterOn(const std::string& name, Work work) {
    RegisterRun(name, [work](benchmark::State& state) {
        Object object;
        for (auto _ : state) {
            work(object);
        }
    });
}
