#pragma once

#include <Kel/Core/Export.h>

#include <time.h>

#include <chrono>

namespace Kel::System::Ve::Internal::Linux {

/// Turns time-outs into the absolute deadlines of the timed system calls. Stateless, thread-safe.
class KEL_API TimeoutConversion {
public:
    /// The clock that the consumer of the deadline measures with.
    enum ClockId : int {
        Realtime = CLOCK_REALTIME,
        Monotonic = CLOCK_MONOTONIC,
    };

    /// Sets `result` to `timeoutMs` milliseconds from now on `clock`; 0 is the present moment. A deadline after the
    /// last second that a `timespec` holds is in that second.
    /// Throws VeException when there is no such clock or it cannot be read.
    static void Convert(unsigned long timeoutMs, timespec& result, ClockId clock);

    /// Splits a count of nanoseconds into seconds and nanoseconds, both rounded toward zero: both are negative for a
    /// negative count. Where the count is beyond the seconds that a `timespec` holds, the seconds are the nearest.
    static void NsAbsoluteToTimespec(const std::chrono::nanoseconds& absolute, timespec& result);
};

}  // namespace Kel::System::Ve::Internal::Linux
