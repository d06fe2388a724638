#include "support/Test.h"

namespace {

TEST_F(AppDomainTest, OneOfSeveralGetsTheInstanceAndItsPlaceStaysTakenUntilItIsRemoved) {
    int instance = 0;
    appDomain.Add(typeid(int), &instance);
    appDomain.RemoveWithdrawn(typeid(int));
    EXPECT_EQ(appDomain.Withdraw(typeid(int)), &instance);
    EXPECT_EQ(appDomain.Withdraw(typeid(int)), nullptr);
    EXPECT_FALSE(appDomain.Add(typeid(int), &instance));
    appDomain.RemoveWithdrawn(typeid(int));
    EXPECT_TRUE(appDomain.Add(typeid(int), &instance));
}

TEST(ServiceTypeTest, NumbersHaveNamesOrArePrintedThemselves) {
    std::istringstream names(
        "-1 Process SharedLibrary Semaphore Mutex Thread SharedMemory MessageQueue Socket 8 Timer RWLockService "
        "11 12 13 File ConditionVariable TraceController SignalHandler 18");
    std::string text;
    for (int value = -1; names >> text; ++value) {
        const bool hasName = text != std::to_string(value);
        std::ostringstream stream;
        stream << std::hex << static_cast<ServiceType>(value);
        EXPECT_EQ(stream.rdstate(), hasName ? std::ios_base::goodbit : std::ios_base::failbit) << text;
        EXPECT_EQ(stream.str(), text);
        ServiceType parsed{-1};
        // Not by the beginning of a name.
        EXPECT_FALSE(static_cast<bool>(std::istringstream(text.substr(0, text.size() - 1)) >> parsed)) << text;
        EXPECT_EQ(static_cast<bool>(std::istringstream(" " + text + " Mutex") >> parsed), hasName) << text;
        EXPECT_EQ(static_cast<int>(parsed), hasName ? value : -1);
    }
}

}  // namespace
