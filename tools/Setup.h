#pragma once

#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <optional>
#include <string>

/// What a real-time program does at its start. True: it must succeed; false: not at all; none: if it is permitted.
struct Wishes {
    /// That no page of it has to be waited for.
    std::optional<bool> lockMemory;
    /// That no processor sleeps so deeply that it takes long to wake.
    std::optional<bool> latencyTarget;
};

/// What came of it: empty when it was done, and otherwise why not.
struct Setup {
    std::string whyNotLocked;
    std::string whyNoTarget;
};

/// Locks the memory of the process, what it will allocate included, until munlockall, and sets the latency target until
/// the process ends. Throws std::runtime_error when what must succeed does not.
Setup SetUp(Kel::System::Ve::Internal::ServiceFactory& factory, const Wishes& wishes);
