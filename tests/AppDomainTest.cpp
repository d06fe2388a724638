#include "support/Test.h"

#include <sstream>

namespace {

class Something : public Kel::AppDomainSingleton<Something> {};

TEST_F(AppDomainTest, HoldsOneInstanceOfAType) {
    const auto missing = "AppDomain Singleton instance of type '(anonymous namespace)::Something' was not created yet!";
    Something something;
    EXPECT_TRUE(Throws<Exception>([] { Something::GetInstance(); }, missing));
    EXPECT_TRUE(appDomain.Add(typeid(Something), &something));
    EXPECT_FALSE(appDomain.Add(typeid(Something), nullptr));
    EXPECT_EQ(Something::GetInstance(), &something);
    EXPECT_EQ(appDomain.Find(typeid(int)), nullptr);

    EXPECT_EQ(appDomain.Withdraw(typeid(Something)), &something);
    EXPECT_EQ(appDomain.Withdraw(typeid(Something)), nullptr);
    EXPECT_TRUE(Throws<Exception>([] { Something::GetInstance(); }, missing));
    EXPECT_FALSE(appDomain.Add(typeid(Something), &something));

    appDomain.RemoveWithdrawn(typeid(Something));
    EXPECT_EQ(appDomain.Withdraw(typeid(Something)), nullptr);
    EXPECT_TRUE(appDomain.Add(typeid(Something), &something));
    appDomain.RemoveWithdrawn(typeid(Something));
    EXPECT_EQ(Something::GetInstance(), &something);
}

TEST(ServiceTypeTest, PrintsAndParsesNamesAndPrintsTheNumberOfATypeWithout) {
    const std::string names[] = {"Process",
                                 "SharedLibrary",
                                 "Semaphore",
                                 "Mutex",
                                 "Thread",
                                 "SharedMemory",
                                 "MessageQueue",
                                 "Socket",
                                 "",
                                 "Timer",
                                 "RWLockService",
                                 "",
                                 "",
                                 "",
                                 "File",
                                 "ConditionVariable",
                                 "TraceController",
                                 "SignalHandler",
                                 ""};
    for (int value = -1; value < static_cast<int>(std::size(names)); ++value) {
        const std::string name = value == -1 ? "" : names[value];
        std::stringstream stream;
        stream << std::hex << static_cast<ServiceType>(value);
        EXPECT_EQ(stream.rdstate(), name.empty() ? std::ios_base::failbit : std::ios_base::goodbit);
        EXPECT_EQ(stream.str(), name.empty() ? std::to_string(value) : name);
        ServiceType parsed{-1};
        EXPECT_EQ(static_cast<bool>(stream >> parsed), !name.empty());
        EXPECT_EQ(static_cast<int>(parsed), name.empty() ? -1 : value);
    }
}

TEST(ServiceTypeTest, RefusesOtherWords) {
    for (const char* const word : {"RWLock", "mutex", "Mutex,", "3", ""}) {
        std::istringstream stream(word);
        ServiceType type = ServiceType::File;
        EXPECT_FALSE(stream >> type) << word;
        EXPECT_EQ(type, ServiceType::File);
    }
    std::istringstream words(" \t Mutex Timer");
    ServiceType first{};
    ServiceType second{};
    EXPECT_TRUE(words >> first >> second);
    EXPECT_EQ(first, ServiceType::Mutex);
    EXPECT_EQ(second, ServiceType::Timer);
}

TEST(EnumDictionaryTest, WritesUndefinedAndNullTexts) {
    enum class Level { Low, High };
    const Kel::EnumDictionaryBase<Level> dictionary({{Level::Low, nullptr}}, "unknown");
    std::ostringstream stream;
    dictionary.WriteEnumString(stream, Level::Low);
    EXPECT_EQ(stream.rdstate(), std::ios_base::badbit);
    stream.clear();
    dictionary.WriteEnumString(stream, Level::High);
    EXPECT_EQ(stream.rdstate(), std::ios_base::failbit);
    EXPECT_EQ(stream.str(), "unknown");
    std::istringstream input("unknown");
    Level level = Level::High;
    dictionary.ReadEnumString(input, level);
    EXPECT_TRUE(input.fail());
}

}  // namespace
