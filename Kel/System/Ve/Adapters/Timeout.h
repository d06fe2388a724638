#pragma once

#include <Kel/System/Ve/ICondVariableService.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace Kel::System::Ve::Adapters {

/// Returns the moment when `timeout`, rounded up, will have passed on the steady clock. A century stands for all that
/// is longer; the present moment for all that is negative, or not a number.
template <class Rep, class Period>
ICondVariableService::SteadyTimePoint DeadlineAfter(const std::chrono::duration<Rep, Period>& timeout) {
    using std::chrono::nanoseconds;
    constexpr std::chrono::hours century(24 * 36525);
    const std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
    // Compared as fractions, which do not overflow.
    const std::chrono::duration<double> roughly = timeout;
    if (!(roughly.count() > 0)) {
        return now;
    }
    return now + (roughly < century ? std::chrono::ceil<nanoseconds>(timeout) : nanoseconds(century));
}

/// Returns how many milliseconds there are until `deadline`, rounded up: 0 once it has passed, and no more than the
/// time-outs of the services can be.
template <class Clock, class Duration>
unsigned int MillisecondsUntil(const std::chrono::time_point<Clock, Duration>& deadline) {
    using std::chrono::milliseconds;
    constexpr milliseconds longest(std::numeric_limits<unsigned int>::max());
    const auto now = Clock::now().time_since_epoch();
    const std::chrono::duration<double> roughly =
        std::chrono::duration<double>(deadline.time_since_epoch()) - std::chrono::duration<double>(now);
    // What is not a number has passed, too.
    if (!(roughly.count() >= -1)) {
        return 0;
    }
    if (roughly >= longest) {
        return std::numeric_limits<unsigned int>::max();
    }
    // In the finer unit of the two, with a sign, which the deadline's own numbers may not have.
    using Common = std::common_type_t<Duration, typename Clock::duration>;
    using Rep = std::conditional_t<std::is_integral_v<typename Common::rep>, std::int64_t, typename Common::rep>;
    using Signed = std::chrono::duration<Rep, typename Common::period>;
    const auto remaining = std::chrono::ceil<milliseconds>(Signed(deadline.time_since_epoch()) - Signed(now));
    return static_cast<unsigned int>(std::clamp(remaining, milliseconds::zero(), longest).count());
}

/// Calls `acquire(timeoutMs)` until it returns true or `deadline` has passed, and once in any case. Time-outs that end
/// early, because they cannot be as long or because their clock was set, are continued.
template <class Clock, class Duration, class Acquire>
bool AcquireUntil(const std::chrono::time_point<Clock, Duration>& deadline, Acquire acquire) {
    for (;;) {
        const unsigned int timeoutMs = MillisecondsUntil(deadline);
        if (acquire(timeoutMs)) {
            return true;
        }
        if (timeoutMs == 0) {
            return false;
        }
    }
}

}  // namespace Kel::System::Ve::Adapters
