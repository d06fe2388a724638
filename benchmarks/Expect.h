#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the program when a call has failed: what fails early is no measure.
inline void Expect(bool condition) {
    if (__builtin_expect(static_cast<long>(!condition), 0L) != 0) {
        std::perror("a call that is measured has failed");
        std::abort();
    }
}
