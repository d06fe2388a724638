#include "support/Test.h"

namespace {

class Something : public AppDomainSingleton<Something> {};

TEST_F(AppDomainTest, HoldsOneInstanceOfAType) {
    const std::string missing =
        "Exception: AppDomain Singleton instance of type '(anonymous namespace)::Something' was not created yet!";
    Something something;
    EXPECT_TRUE(ComesTo([] { Something::GetInstance(); }, missing));
    EXPECT_TRUE(appDomain.Add(typeid(Something), &something));
    EXPECT_FALSE(appDomain.Add(typeid(Something), nullptr));
    EXPECT_EQ(appDomain.Find(typeid(int)), nullptr);
    appDomain.RemoveWithdrawn(typeid(Something));
    EXPECT_EQ(Something::GetInstance(), &something);

    // One of several callers gets it, and the place stays taken until its entry is removed.
    EXPECT_EQ(appDomain.Withdraw(typeid(Something)), &something);
    EXPECT_EQ(appDomain.Withdraw(typeid(Something)), nullptr);
    EXPECT_TRUE(ComesTo([] { Something::GetInstance(); }, missing));
    EXPECT_FALSE(appDomain.Add(typeid(Something), &something));
    appDomain.RemoveWithdrawn(typeid(Something));
    EXPECT_TRUE(appDomain.Add(typeid(Something), &something));
}

TEST(ServiceTypeTest, NumbersHaveNamesOrArePrintedThemselves) {
    std::istringstream names(
        "-1 Process SharedLibrary Semaphore Mutex Thread SharedMemory MessageQueue Socket 8 Timer RWLockService "
        "11 12 13 File ConditionVariable TraceController SignalHandler 18");
    std::string text;
    for (int value = -1; names >> text; ++value) {
        const bool hasName = text != std::to_string(value);
        std::stringstream stream;
        stream << std::hex << static_cast<ServiceType>(value);
        EXPECT_EQ(stream.rdstate(), hasName ? std::ios_base::goodbit : std::ios_base::failbit) << text;
        EXPECT_EQ(stream.str(), text);
        ServiceType parsed{-1};
        EXPECT_EQ(static_cast<bool>(stream >> parsed), hasName) << text;
        EXPECT_EQ(static_cast<int>(parsed), hasName ? value : -1);
    }
}

TEST(ServiceTypeTest, OneWordIsReadAndMustBeAName) {
    for (const char* const words : {"RWLock", "mutex", "Mutex,", "3", ""}) {
        std::istringstream stream(words);
        ServiceType type = ServiceType::File;
        EXPECT_FALSE(stream >> type) << words;
        EXPECT_EQ(type, ServiceType::File);
    }
    std::istringstream stream(" \t Mutex Timer");
    ServiceType first{};
    ServiceType second{};
    EXPECT_TRUE(stream >> first >> second);
    EXPECT_TRUE(first == ServiceType::Mutex && second == ServiceType::Timer);
}

TEST(EnumDictionaryTest, WritesUndefinedAndNullTexts) {
    enum class Level { Low, High };
    const EnumDictionaryBase<Level> dictionary({{Level::Low, nullptr}}, "unknown");
    std::ostringstream stream;
    dictionary.WriteEnumString(stream, Level::Low);
    EXPECT_EQ(stream.rdstate(), std::ios_base::badbit);
    stream.clear();
    dictionary.WriteEnumString(stream, Level::High);
    EXPECT_EQ(stream.rdstate(), std::ios_base::failbit);
    EXPECT_EQ(stream.str(), "unknown");
}

}  // namespace
