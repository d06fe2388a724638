#pragma once

#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <benchmark/benchmark.h>

#include <string>
#include <utility>

// Each family does the same work in several ways: through the library, by the bare call, which is the limit, and with
// what a user would take instead. A benchmark's name is "family/work/way"; scripts/bench compares the ways of a work.

using Kel::System::Ve::Internal::ServiceFactory;

void RegisterSynchronization(ServiceFactory& factory);
void RegisterCommunication(ServiceFactory& factory);
void RegisterStorage(ServiceFactory& factory);
void RegisterObjects(ServiceFactory& factory);
void RegisterFailures(ServiceFactory& factory);

/// Registers a benchmark that does `work()` again and again.
template <typename Work>
benchmark::internal::Benchmark* Register(const std::string& name, Work work) {
    return benchmark::RegisterBenchmark(name.c_str(), [work = std::move(work)](benchmark::State& state) mutable {
        for (auto _ : state) {
            work();
        }
    });
}
