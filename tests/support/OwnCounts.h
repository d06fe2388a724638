#pragma once

// What this process has.

#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <iterator>

inline std::ptrdiff_t CountEntries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

/// Returns how many file descriptors this process has open.
inline std::ptrdiff_t OpenDescriptors() { return CountEntries("/proc/self/fd"); }

/// Returns the number that the next file descriptor will have.
inline int NextDescriptor() {
    const int descriptor = dup(STDIN_FILENO);
    close(descriptor);
    return descriptor;
}

/// Returns how many threads this process has.
inline std::ptrdiff_t CountThreads() { return CountEntries("/proc/self/task"); }
