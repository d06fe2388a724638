#pragma once

#include <unistd.h>

#include <string>

/// A name for a named object of the system that no other test process uses at the same time.
inline std::string UniqueName(const std::string& purpose) {
    return "/kel-test-" + purpose + "-" + std::to_string(getpid());
}
