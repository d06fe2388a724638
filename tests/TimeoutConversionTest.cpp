#include "support/Test.h"

namespace {

std::string Convert(unsigned long timeoutMs, int clock) {
    timespec result{-1, -1};
    const std::string outcome =
        Operation([&] { TimeoutConversion::Convert(timeoutMs, result, TimeoutConversion::ClockId{clock}); }).Outcome();
    return outcome + ", " + std::to_string(result.tv_sec) + " s " + std::to_string(result.tv_nsec);
}

TEST(TimeoutConversionTest, AddsMillisecondsToTheClockAskedFor) {
    time_t realtime = 5;
    const Interposition clocks("clock_gettime", [&](const auto& arguments) {
        *Interposition::Pointer<timespec>(arguments[1]) = {arguments[0] == CLOCK_REALTIME ? realtime : 7, 500000000};
        return 0;
    });
    EXPECT_EQ(Convert(500, CLOCK_MONOTONIC), "done, 8 s 0");
    EXPECT_EQ(Convert(999, CLOCK_REALTIME), "done, 6 s 499000000");
    realtime = 2147483640;
    EXPECT_EQ(Convert(4294967295UL, CLOCK_REALTIME),
              sizeof(time_t) == 4 ? "done, 2147483647 s 795000000" : "done, 2151778607 s 795000000");
    EXPECT_EQ(Convert(1, -1), "VeException: Unknown clock requested., 0 s 0");
    const FailingCall reading("clock_gettime");
    EXPECT_EQ(Convert(1, 1), "VeException: Could not compute timeout., 0 s 0");
}

}  // namespace
