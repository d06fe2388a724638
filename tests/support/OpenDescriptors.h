#pragma once

#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <iterator>

/// Returns how many file descriptors this process has open.
inline std::ptrdiff_t OpenDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// Returns the number that the next file descriptor will have.
inline int NextDescriptor() {
    const int descriptor = dup(STDIN_FILENO);
    close(descriptor);
    return descriptor;
}
