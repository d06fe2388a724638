#include "support/Test.h"

#include <sstream>

namespace {

class Something : public Kel::AppDomainSingleton<Something> {};

const char* const noAppDomain = "Singleton instance of type 'Kel::AppDomain' was not created yet!";

TEST(SingletonTest, IsMissedWithoutAppDomain) {
    EXPECT_TRUE(Throws<Exception>([] { Something::GetInstance(); }, noAppDomain));
}

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

TEST_F(AppDomainTest, ReportsALockThatCannotBeUsed) {
    const struct {
        const char* function;
        void (*operation)(AppDomain&);
    } table[] = {
        {"pthread_rwlock_init", [](AppDomain&) { AppDomain(); }},
        {"pthread_rwlock_rdlock", [](AppDomain& domain) { domain.Find(typeid(int)); }},
        {"pthread_rwlock_wrlock", [](AppDomain& domain) { domain.Add(typeid(int), nullptr); }},
        {"pthread_rwlock_wrlock", [](AppDomain& domain) { domain.Withdraw(typeid(int)); }},
        {"pthread_rwlock_wrlock", [](AppDomain& domain) { domain.RemoveWithdrawn(typeid(int)); }},
    };
    for (const auto& row : table) {
        const FailingCall call(row.function, EAGAIN, ENOENT);
        EXPECT_TRUE(Throws<Exception>([&] { row.operation(appDomain); },
                                      "Lock of the AppDomain failed: Resource temporarily unavailable"));
    }
}

TEST(ServiceTypeTest, PrintsAndParsesNames) {
    const struct {
        int value;
        const char* name;
    } table[] = {{0, "Process"},
                 {1, "SharedLibrary"},
                 {2, "Semaphore"},
                 {3, "Mutex"},
                 {4, "Thread"},
                 {5, "SharedMemory"},
                 {6, "MessageQueue"},
                 {7, "Socket"},
                 {9, "Timer"},
                 {10, "RWLockService"},
                 {14, "File"},
                 {15, "ConditionVariable"},
                 {16, "TraceController"},
                 {17, "SignalHandler"}};
    for (const auto& row : table) {
        std::stringstream stream;
        stream << static_cast<ServiceType>(row.value);
        EXPECT_TRUE(stream.good());
        EXPECT_EQ(stream.str(), row.name);
        ServiceType parsed{-1};
        EXPECT_TRUE(stream >> parsed);
        EXPECT_EQ(static_cast<int>(parsed), row.value);
    }
}

TEST(ServiceTypeTest, PrintsTheNumberOfATypeWithoutName) {
    for (const int value : {-1, 8, 11, 12, 13, 18}) {
        std::ostringstream stream;
        stream << std::hex << static_cast<ServiceType>(value);
        EXPECT_EQ(stream.rdstate(), std::ios_base::failbit);
        EXPECT_EQ(stream.str(), std::to_string(value));
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
