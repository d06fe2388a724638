#include "support/Test.h"

namespace {

bool operator==(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

TEST(TimeoutConversionTest, AddsMillisecondsToTheClockAskedFor) {
    const struct {
        TimeoutConversion::ClockId clock;
        timespec now;
        unsigned long timeoutMs;
        timespec deadline;
    } table[] = {
        {TimeoutConversion::Realtime, {5, 500000000}, 0, {5, 500000000}},
        {TimeoutConversion::Monotonic, {5, 500000000}, 499, {5, 999000000}},
        {TimeoutConversion::Realtime, {5, 500000000}, 500, {6, 0}},
        {TimeoutConversion::Monotonic, {5, 999999999}, 4294967295UL, {4294973, 294999999}},
    };
    for (const auto& row : table) {
        const Interposition stoppedClock("clock_gettime", [&](const Interposition::Arguments& arguments) {
            EXPECT_EQ(arguments[0], row.clock);
            *Interposition::Pointer<timespec>(arguments[1]) = row.now;
            return 0;
        });
        timespec deadline;
        TimeoutConversion::Convert(row.timeoutMs, deadline, row.clock);
        EXPECT_TRUE(deadline == row.deadline) << row.timeoutMs;
    }
}

TEST(TimeoutConversionTest, OtherClocksAreRefused) {
    for (const int clock : {-1, 2, 7}) {
        timespec deadline{-1, -1};
        const auto convert = [&] { TimeoutConversion::Convert(1, deadline, TimeoutConversion::ClockId{clock}); };
        EXPECT_TRUE(ComesTo(convert, "VeException: Unknown clock requested."));
        EXPECT_TRUE(deadline == timespec{});
    }
}

TEST(TimeoutConversionTest, SplitsNanoseconds) {
    const std::pair<long long, timespec> table[] = {{1500000000, {1, 500000000}}, {-1500000000, {-1, -500000000}}};
    timespec split;
    for (const auto& [nanoseconds, expected] : table) {
        TimeoutConversion::NsAbsoluteToTimespec(std::chrono::nanoseconds(nanoseconds), split);
        EXPECT_TRUE(split == expected) << nanoseconds;
    }
    TimeoutConversion::NsAbsoluteToTimespec(std::chrono::nanoseconds::max(), split);
    EXPECT_GE(split.tv_sec, std::numeric_limits<std::int32_t>::max());
}

}  // namespace
