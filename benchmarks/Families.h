#pragma once

#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

// Each family does the same work in several ways: through the library, by the bare call, which is the limit, and with
// what a user would take instead. A benchmark's name is "family/work/way"; scripts/bench compares the ways of a work.
// The bare way does what the library has to do: the same calls, with the same attributes, their results looked at.

using Kel::System::Ve::Internal::ServiceFactory;

void RegisterLocks();
void RegisterWaiting();
void RegisterThreads();
void RegisterSockets();
void RegisterMessageQueues();
void RegisterFiles();
void RegisterPrograms();
void RegisterObjects();
void RegisterFailures();
void RegisterBoost();
void RegisterPoco();

/// How often each benchmark does its work; 0 for as often as a good reading needs.
extern benchmark::IterationCount fixedIterations;

/// Shows which reading is being taken.
void TellReading(const std::string& name);

/// Ends the program when a call has failed: what fails early is no measure.
inline void Expect(bool condition) {
    if (__builtin_expect(static_cast<long>(!condition), 0L) != 0) {
        std::perror("a call that is measured has failed");
        std::abort();
    }
}

inline ServiceFactory& Factory() { return *ServiceFactory::GetInstance(); }

/// A name that no other run of the benchmarks has.
std::string UniqueName(const char* prefix);

/// Registers a benchmark that is run by `run(state)`.
template <typename Run>
void RegisterRun(const std::string& name, Run run) {
    auto* const registered = benchmark::RegisterBenchmark(
        name.c_str(), [name, run, iterations = benchmark::IterationCount{0}](auto& state) mutable {
            // The runs that look for the number of iterations, each longer than the one before, are one reading.
            if (iterations == 0 || state.max_iterations <= iterations) {
                TellReading(name);
            }
            iterations = state.max_iterations;
            run(state);
        });
    registered->UseRealTime();
    if (fixedIterations != 0) {
        registered->Iterations(fixedIterations);
    }
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
