#include "support/Test.h"

#include <limits>

namespace {

TEST(TimeoutConversionTest, AddsMilliseconds) {
    const struct {
        timespec now;
        unsigned long timeoutMs;
        timespec deadline;
    } table[] = {
        {{5, 500000000}, 0, {5, 500000000}}, {{5, 500000000}, 499, {5, 999000000}},
        {{5, 500000000}, 500, {6, 0}},       {{5, 500000000}, 999, {6, 499000000}},
        {{5, 0}, 1500, {6, 500000000}},      {{5, 999999999}, 4294967295UL, {4294973, 294999999}},
    };
    for (const auto& row : table) {
        const StoppedClock stoppedClock(row.now);
        timespec deadline{-1, -1};
        TimeoutConversion::Convert(row.timeoutMs, deadline, TimeoutConversion::Realtime);
        EXPECT_EQ(deadline.tv_sec, row.deadline.tv_sec);
        EXPECT_EQ(deadline.tv_nsec, row.deadline.tv_nsec);
    }
}

TEST(TimeoutConversionTest, StartsFromTheClockAskedFor) {
    for (const auto clock : {TimeoutConversion::Realtime, TimeoutConversion::Monotonic}) {
        timespec before;
        timespec deadline;
        timespec after;
        ASSERT_EQ(clock_gettime(clock, &before), 0);
        TimeoutConversion::Convert(999, deadline, clock);
        ASSERT_EQ(clock_gettime(clock, &after), 0);
        const auto nanoseconds = [](const timespec& time) { return time.tv_sec * 1000000000LL + time.tv_nsec; };
        EXPECT_GE(nanoseconds(deadline), nanoseconds(before) + 999000000);
        EXPECT_LE(nanoseconds(deadline), nanoseconds(after) + 999000000);
    }
    for (const int clock : {-1, 2, 7}) {
        timespec deadline{-1, -1};
        EXPECT_TRUE(
            Throws([&] { TimeoutConversion::Convert(1, deadline, static_cast<TimeoutConversion::ClockId>(clock)); },
                   "Unknown clock requested."));
        EXPECT_TRUE(deadline.tv_sec == 0 && deadline.tv_nsec == 0);
    }
}

TEST(TimeoutConversionTest, SplitsNanoseconds) {
    const struct {
        long long nanoseconds;
        timespec split;
    } table[] = {{0, {0, 0}}, {1500000000, {1, 500000000}}, {-1500000000, {-1, -500000000}}, {-1, {0, -1}}};
    for (const auto& row : table) {
        timespec result{7, 7};
        TimeoutConversion::NsAbsoluteToTimespec(std::chrono::nanoseconds(row.nanoseconds), result);
        EXPECT_EQ(result.tv_sec, row.split.tv_sec);
        EXPECT_EQ(result.tv_nsec, row.split.tv_nsec);
    }
    timespec furthest;
    TimeoutConversion::NsAbsoluteToTimespec(std::chrono::nanoseconds::max(), furthest);
    EXPECT_GE(furthest.tv_sec, std::numeric_limits<std::int32_t>::max());
}

}  // namespace
