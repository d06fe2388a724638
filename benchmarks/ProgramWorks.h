#pragma once

#include "Benchmark.h"
#include "Resident.h"

#include <cstddef>
#include <string>

constexpr char program[] = "/bin/true";
constexpr char symbol[] = "Answer";

/// `run()` runs the program, from a process as small as this one, and from a large one.
template <typename Run>
void RegisterProcess(const std::string& way, Run run) {
    const struct {
        const char* work;
        std::size_t size;
    } sizes[] = {{"process/start to exit/", 0}, {"process/start to exit from 1 GiB/", std::size_t{1} << 30U}};
    for (const auto& size : sizes) {
        RegisterRun(size.work + way, [run, bytes = size.size](benchmark::State& state) {
            const Resident resident(bytes);
            for (auto _ : state) {
                run();
            }
        });
    }
}
