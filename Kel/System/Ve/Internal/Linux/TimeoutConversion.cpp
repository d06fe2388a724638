#include <Kel/System/Ve/Internal/Linux/TimeoutConversion.h>

#include <Kel/System/Ve/Exceptions/VeException.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

namespace {

// A 32-bit time_t ends at 68 years: a later deadline must not wrap around into the past.
time_t Saturated(std::int64_t seconds) {
    using Limits = std::numeric_limits<time_t>;
    return static_cast<time_t>(std::clamp<std::int64_t>(seconds, Limits::min(), Limits::max()));
}

}  // namespace

void TimeoutConversion::Convert(unsigned long timeoutMs, timespec& result, ClockId clock) {
    result = {};
    if (clock != Realtime && clock != Monotonic) {
        throw VeException("Unknown clock requested.");
    }
    if (clock_gettime(clock, &result) != 0) {
        throw VeException("Could not compute timeout.");
    }
    const long nanoseconds = result.tv_nsec + static_cast<long>(timeoutMs % 1000) * 1000000;
    result.tv_sec = Saturated(result.tv_sec + static_cast<std::int64_t>(timeoutMs / 1000) + nanoseconds / 1000000000);
    result.tv_nsec = nanoseconds % 1000000000;
}

void TimeoutConversion::NsAbsoluteToTimespec(const std::chrono::nanoseconds& absolute, timespec& result) {
    const std::int64_t count = absolute.count();
    result.tv_sec = Saturated(count / 1000000000);
    result.tv_nsec = static_cast<long>(count % 1000000000);
}

}  // namespace Kel::System::Ve::Internal::Linux
