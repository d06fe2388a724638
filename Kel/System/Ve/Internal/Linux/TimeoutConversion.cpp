#include <Kel/System/Ve/Internal/Linux/TimeoutConversion.h>

#include <Kel/System/Ve/Exceptions/VeException.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

void TimeoutConversion::Convert(unsigned long timeoutMs, timespec& result, ClockId clock) {
    result = {};
    if (clock != Realtime && clock != Monotonic) {
        throw VeException("Unknown clock requested.");
    }
    if (clock_gettime(clock, &result) != 0) {
        throw VeException("Could not compute timeout.");
    }
    result.tv_sec += static_cast<time_t>(timeoutMs / 1000);
    result.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000;
    while (result.tv_nsec > 999999999) {
        result.tv_nsec -= 1000000000;
        ++result.tv_sec;
    }
}

void TimeoutConversion::NsAbsoluteToTimespec(const std::chrono::nanoseconds& absolute, timespec& result) {
    using Seconds = std::numeric_limits<time_t>;
    const std::int64_t count = absolute.count();
    // A 32-bit time_t ends at 68 years: a later deadline must not wrap around into the past.
    result.tv_sec = static_cast<time_t>(std::clamp<std::int64_t>(count / 1000000000, Seconds::min(), Seconds::max()));
    result.tv_nsec = static_cast<long>(count % 1000000000);
}

}  // namespace Kel::System::Ve::Internal::Linux
