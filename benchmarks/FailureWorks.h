#pragma once

#include "Benchmark.h"

#include <string>

constexpr char place[] = "Operation";
constexpr char path[] = "/a/path";
constexpr int number = 13;

/// Calls `throwNow` from so many frames above the caller's.
void ThrowAtDepth(int depth, void (*volatile throwNow)());

/// `throwNow` throws an `Error` that carries a stack trace as text.
template <typename Error>
void RegisterThrow(const std::string& way, void (*throwNow)()) {
    for (const int depth : {10, 40}) {
        Register("exception/throw and catch " + std::to_string(depth) + " deep/" + way, [depth, throwNow] {
            try {
                ThrowAtDepth(depth, throwNow);
            } catch (const Error& error) {
                benchmark::DoNotOptimize(&error);
            }
        });
    }
}
