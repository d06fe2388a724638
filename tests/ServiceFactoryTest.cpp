#include "support/Test.h"

#include <cstddef>
#include <iostream>
#include <new>
#include <sstream>

namespace {

const char* const noAppDomain = "Singleton instance of type 'Kel::AppDomain' was not created yet!";
const char* const noFactory =
    "AppDomain Singleton instance of type 'Kel::System::Ve::Internal::ServiceFactory' was not created yet!";

class TestService : public ServiceObjectBase {
public:
    explicit TestService(ServiceType type = ServiceType::Thread, bool registers = true)
        : ServiceObjectBase("TestService", type, registers) {}
};

// What was written to standard output while `operation` ran; its base is decimal before and after.
// Every line of it has been flushed.
template <typename Operation>
std::string OutputOf(Operation&& operation) {
    class Buffer : public std::stringbuf {
    public:
        std::string flushed;

    private:
        int sync() override {
            flushed = str();
            return 0;
        }
    };
    Buffer buffer;
    std::streambuf* const previous = std::cout.rdbuf(&buffer);
    operation();
    std::cout.rdbuf(previous);
    EXPECT_EQ(buffer.str().rfind('\n'), buffer.flushed.rfind('\n'));
    return buffer.str();
}

using ServiceFactoryTest = FactoryTest;
using NoFactoryTest = AppDomainTest;

TEST(NoAppDomainTest, NothingCanBeMade) {
    EXPECT_TRUE(Throws<Exception>([] { ServiceFactory::CreateServiceFactory(); }, noAppDomain));
    EXPECT_TRUE(Throws<Exception>([] { ServiceFactory::DisposeServiceFactory(); }, noAppDomain));
    EXPECT_TRUE(Throws<Exception>([] { TestService(); }, noAppDomain));
    const TestService unregistered(ServiceType::Thread, false);
}

TEST_F(NoFactoryTest, NoServiceObjectCanBeMade) {
    EXPECT_TRUE(Throws<Exception>([] { TestService(); }, noFactory));
    EXPECT_TRUE(Throws<Exception>([] { ServiceFactory::GetInstance(); }, noFactory));
    ServiceFactory::DisposeServiceFactory();
}

// By a handler that comes after the end of whatever was made later than it was registered.
TEST_F(NoFactoryTest, MayBeDisposedAtTheEndOfTheProcess) {
    Child child([]() -> int {
        const auto dispose = [] {
            const std::string report = OutputOf([] { ServiceFactory::DisposeServiceFactory(); });
            _exit(report.find(" of type 'Mutex' was not destroyed.") != std::string::npos ? 0 : 1);
        };
        EXPECT_EQ(std::atexit(dispose), 0);
        ServiceFactory::CreateServiceFactory();
        ServiceFactory::GetInstance()->CreateMutex(false);
        std::ostringstream() << ServiceType::Mutex;
        std::exit(2);  // NOLINT(concurrency-mt-unsafe): there is no other thread.
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST_F(NoFactoryTest, FactoryIsMadeOnceUntilItIsDisposed) {
    ServiceFactory::CreateServiceFactory();
    ServiceFactory* const factory = ServiceFactory::GetInstance();
    EXPECT_TRUE(Throws<Exception>(
        [] { ServiceFactory::CreateServiceFactory(); },
        "AppDomain Singleton instance of type 'Kel::System::Ve::Internal::ServiceFactory' was created yet!"));
    EXPECT_EQ(ServiceFactory::GetInstance(), factory);
    EXPECT_EQ(OutputOf([] { ServiceFactory::DisposeServiceFactory(); }), "");
    EXPECT_TRUE(Throws<Exception>([] { ServiceFactory::GetInstance(); }, noFactory));
    ServiceFactory::CreateServiceFactory();
    ServiceFactory::DisposeServiceFactory();
}

// As when another thread is faster. In a child, since the factory that is refused stays allocated.
TEST_F(NoFactoryTest, SecondFactoryAtTheSameTimeIsRefused) {
    Child child([]() -> int {
        FailingCall noDestruction("pthread_mutex_destroy", [] { _exit(2); });
        noDestruction.InAnyThread();
        const FailingCall call("pthread_mutex_init", [] { ServiceFactory::CreateServiceFactory(); });
        _exit(Throws<Exception>([] { ServiceFactory::CreateServiceFactory(); },
                                "AppDomain Singleton of type 'Kel::System::Ve::Internal::ServiceFactory' has been "
                                "added yet")
                  ? 0
                  : 1);
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST_F(NoFactoryTest, AppDomainThatGoesWhileTheFactoryIsMadeIsMissed) {
    const FailingCall call("pthread_mutex_init", [] { Kel::Singleton<Kel::AppDomain>::pInstance = nullptr; });
    EXPECT_TRUE(Throws<Exception>([] { ServiceFactory::CreateServiceFactory(); }, noAppDomain));
}

TEST_F(NoFactoryTest, FactoryWithoutItsMutexRegistersNothing) {
    TestService service(ServiceType::Thread, false);
    alignas(LinuxServiceFactory) std::byte storage[sizeof(LinuxServiceFactory)];
    const FailingCall call("pthread_mutexattr_init", [&] {
        auto* const unfinished = reinterpret_cast<ServiceFactory*>(storage);
        EXPECT_TRUE(Throws<VeException>([&] { unfinished->RegisterServiceObject(&service); },
                                        "RegisterServiceObject: Mutex not initialized yet."));
        EXPECT_TRUE(Throws<VeException>([&] { unfinished->ReleaseServiceObject(nullptr); },
                                        "ReleaseServiceObject: Mutex not initialized yet."));
    });
    (new (storage) LinuxServiceFactory)->~LinuxServiceFactory();
}

TEST_F(ServiceFactoryTest, KnowsItsVersion) {
    const Kel::BasicVersion version = factory->GetVersion();
    EXPECT_EQ(version.GetText() + version.GetSuffix(), "2024.0.8 LTS");
    EXPECT_EQ((std::vector{version.GetMajor(), version.GetMinor(), version.GetPatch(), version.GetBuild()}),
              (std::vector{24U, 0U, 8U, 183U}));
}

TEST_F(ServiceFactoryTest, CountsEveryRegistrationAndRelease) {
    TestService service(ServiceType::Thread, false);
    factory->RegisterServiceObject(nullptr);
    factory->ReleaseServiceObject(nullptr);
    EXPECT_EQ(LiveObjects(), 0U);
    factory->ReleaseServiceObject(&service);
    EXPECT_EQ(LiveObjects(), 0xffffffffU);
    factory->RegisterServiceObject(&service);
    factory->RegisterServiceObject(&service);
    EXPECT_EQ(LiveObjects(), 1U);
    EXPECT_EQ(factory->GetRegisteredServiceObjects().size(), 1U);
    factory->ReleaseServiceObject(&service);
}

TEST_F(ServiceFactoryTest, RegistersWhileItRegisters) {
    const FailingCall call("pthread_mutex_unlock", [] { const TestService inner; });
    const TestService outer;
}

TEST_F(ServiceFactoryTest, RegistryThatIsHeldForLongIsWaitedFor) {
    std::thread other;
    std::atomic<bool> waits{false};
    FailingCall blocking("pthread_mutex_lock", [&] { waits = true; });
    blocking.InAnyThread();
    {
        const FailingCall held("pthread_mutex_unlock", [&] {
            other = std::thread([] { const TestService service; });
            WaitUntil([&] { return waits.load(); });
        });
        const TestService service;
    }
    other.join();
}

TEST_F(ServiceFactoryTest, ReportsWhatIsAlive) {
    const std::vector<TestService> threads(9);
    const std::unique_ptr<IMutexService> mutex(factory->CreateMutex(false));
    std::ostringstream lines;
    for (const auto& entry : factory->GetRegisteredServiceObjects()) {
        lines << "WARN: service object " << entry.first << " of type '"
              << (entry.first == mutex.get() ? "Mutex" : "Thread") << "' was not destroyed.\n";
    }
    const auto report = [this] { return OutputOf([this] { factory->PrintAllNotDestroyedServiceObjects(); }); };
    EXPECT_EQ(report(), "WARN: 10 service objects were not destroyed:\n" + lines.str());
    EXPECT_EQ(report(), "WARN: a service objects were not destroyed:\n" + lines.str());
    std::cout << std::dec;
}

TEST_F(ServiceFactoryTest, ReportsATypeWithoutName) {
    const TestService service(ServiceType{18});
    const std::string output = OutputOf([this] {
        EXPECT_TRUE(Throws<Exception>([this] { factory->PrintAllNotDestroyedServiceObjects(); },
                                      "Invalid value for Enum 'Kel::System::Ve::ServiceType' occurs: 18"));
    });
    std::ostringstream expected;
    expected << "WARN: 1 service objects were not destroyed:\nWARN: service object "
             << static_cast<const IServiceObject*>(&service) << " of type '";
    EXPECT_EQ(output, expected.str());
    std::cout << std::dec;
    EXPECT_TRUE(std::cout.good());
}

TEST_F(ServiceFactoryTest, ServiceObjectThatOutlivesTheFactoryOrHasNoTypeEndsTheProcess) {
    for (const ServiceType type : {ServiceType::Thread, ServiceType{18}}) {
        Child child([&] {
            const TestService service(type);
            ServiceFactory::DisposeServiceFactory();
            return 0;
        });
        EXPECT_EQ(child.Wait(), 128 + SIGABRT);
    }
}

}  // namespace
