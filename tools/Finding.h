#pragma once

#include <string>

/// What one question about the machine came to.
struct Finding {
    enum class State {
        Good,
        /// It works, but less well than it could.
        Weak,
        /// What a real-time service needs is missing.
        Missing,
        /// It could not be tried, and nothing tells.
        Unknown,
    };

    State state;
    /// What works, or the words in which it failed.
    std::string text;
};
