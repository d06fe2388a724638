#include "support/Test.h"

namespace {

class TimeoutConversionTest : public testing::Test {
protected:
    std::string Convert(unsigned long timeoutMs, int clock) {
        TimeoutConversion::Convert(timeoutMs, result, TimeoutConversion::ClockId{clock});
        return Result();
    }

    std::string Split(long long nanoseconds) {
        TimeoutConversion::NsAbsoluteToTimespec(std::chrono::nanoseconds(nanoseconds), result);
        return Result();
    }

    std::string Result() const { return std::to_string(result.tv_sec) + " s " + std::to_string(result.tv_nsec); }

    timespec result{-1, -1};
};

TEST_F(TimeoutConversionTest, AddsMillisecondsToTheClockAskedFor) {
    time_t realtime = 5;
    const Interposition clocks("clock_gettime", [&](const auto& arguments) {
        *Interposition::Pointer<timespec>(arguments[1]) = {arguments[0] == CLOCK_REALTIME ? realtime : 7, 500000000};
        return 0;
    });
    EXPECT_EQ(Convert(0, CLOCK_REALTIME), "5 s 500000000");
    EXPECT_EQ(Convert(500, CLOCK_MONOTONIC), "8 s 0");
    EXPECT_EQ(Convert(999, CLOCK_REALTIME), "6 s 499000000");
    EXPECT_EQ(Convert(4294967295UL, CLOCK_MONOTONIC), "4294974 s 795000000");
    realtime = 2147483640;
    EXPECT_EQ(Convert(4294967295UL, CLOCK_REALTIME),
              sizeof(time_t) == 4 ? "2147483647 s 795000000" : "2151778607 s 795000000");
}

TEST_F(TimeoutConversionTest, RefusesOtherClocks) {
    EXPECT_TRUE(ComesTo([&] { return Convert(1, -1); }, "VeException: Unknown clock requested."));
    EXPECT_TRUE(ComesTo([&] { return Convert(1, 2); }, "VeException: Unknown clock requested."));
    EXPECT_EQ(Result(), "0 s 0");
    const FailingCall reading("clock_gettime");
    EXPECT_TRUE(ComesTo([&] { return Convert(1, 1); }, "VeException: Could not compute timeout."));
}

TEST_F(TimeoutConversionTest, SplitsNanosecondsTowardZero) {
    EXPECT_EQ(Split(1500000000), "1 s 500000000");
    EXPECT_EQ(Split(-1500000000), "-1 s -500000000");
    // As far as a `time_t` goes.
    Split(std::numeric_limits<long long>::max());
    EXPECT_GE(result.tv_sec, std::numeric_limits<std::int32_t>::max());
}

}  // namespace
