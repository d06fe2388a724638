#pragma once

#include <ctime>

/// Marks what the library exports; everything else in it is hidden.
#define KEL_API __attribute__((visibility("default")))

// Times are handed over in memory of the caller's, which has to be as large as the library takes it to be.
static_assert(sizeof(std::time_t) == sizeof(long),
              "libKel.System.Ve is built with the platform's own time_t: compile without _TIME_BITS=64");
