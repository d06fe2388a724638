#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

/// Returns how many file descriptors this process has open.
inline std::ptrdiff_t OpenDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}
