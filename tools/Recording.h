#pragma once

#include "Setup.h"

#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <cstddef>
#include <cstdint>
#include <vector>

/// What a run is made with.
struct Settings {
    unsigned int periodUs = 1000;
    /// 0 for normal scheduling.
    unsigned int priority = 0;
    /// Bit n for processor n; 0 for all.
    unsigned int processors = 0;
    unsigned int seconds = 10;
    Wishes wishes;

    std::uint64_t Periods() const;
};

struct Recording {
    /// How late each call but the first came, in microseconds. The first follows the start without a wait: the
    /// deadlines are counted from it.
    std::vector<double> latenessUs;
    /// How many calls were not made although a period had passed since their time.
    std::size_t neverMade;
    Setup setup;
};

/// Runs the library's timer, telling its progress on standard error, until all calls are made, the time is over by some
/// seconds, or SIGINT or SIGTERM comes. Throws when the timer cannot be started, or a wish cannot be
/// granted.
Recording Record(Kel::System::Ve::Internal::ServiceFactory& factory, const Settings& settings);
