#include "support/Test.h"
#include "support/UniqueName.h"

#include <mqueue.h>
#include <sys/mman.h>

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

TEST_F(NoFactoryTest, FactoryWhoseMutexFailsIsNotLeftBehind) {
    {
        const FailingCall call("pthread_mutex_init", ENOMEM, ENOENT);
        EXPECT_TRUE(Throws<VeException>([] { ServiceFactory::CreateServiceFactory(); },
                                        "Init: Mutex could not be initiated: Cannot allocate memory"));
    }
    EXPECT_TRUE(Throws<Exception>([] { ServiceFactory::GetInstance(); }, noFactory));
}

TEST_F(NoFactoryTest, AllocationsThatFailLeaveNothingBehind) {
    int failures = 0;
    for (bool succeeded = false; !succeeded; ++failures) {
        std::unique_ptr<IMutexService> mutex;
        try {
            const FailingAllocation allocation(failures);
            ServiceFactory::CreateServiceFactory();
            mutex.reset(ServiceFactory::GetInstance()->CreateMutex(true));
            succeeded = true;
        } catch (const std::bad_alloc&) {
        }
        mutex.reset();
        EXPECT_EQ(OutputOf([] { ServiceFactory::DisposeServiceFactory(); }), "");
    }
    EXPECT_GT(failures, 5);
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
    EXPECT_EQ(version.GetText(), "2024.0.8 LTS");
    EXPECT_EQ(version.GetMajor(), 24U);
    EXPECT_EQ(version.GetMinor(), 0U);
    EXPECT_EQ(version.GetPatch(), 8U);
    EXPECT_EQ(version.GetBuild(), 183U);
    EXPECT_EQ(version.GetSuffix(), "");
}

TEST_F(ServiceFactoryTest, ListsLiveServiceObjects) {
    {
        const TestService first;
        const std::unique_ptr<IMutexService> second(factory->CreateMutex(false));
        EXPECT_EQ(LiveObjects(), 2U);
        EXPECT_EQ(factory->GetStatistics().GetTotalMemory(), 0U);
        const ServiceFactory::ServiceObjects& objects = factory->GetRegisteredServiceObjects();
        EXPECT_EQ(objects.size(), 2U);
        EXPECT_EQ(objects.at(second.get()).text, "");
        EXPECT_EQ(second->GetServiceName(), "MutexService");
        EXPECT_EQ(second->GetServiceType(), ServiceType::Mutex);
    }
    EXPECT_EQ(LiveObjects(), 0U);
}

TEST_F(ServiceFactoryTest, MakesServicesThatKnowWhatTheyAre) {
    using OpenMode = IMessageQueueService::OpenMode;
    using Access = IMessageQueueService::Access;
    const BasicString name = UniqueName("factory");
    const std::unique_ptr<ISemaphoreService> named(factory->CreateSemaphore(name, 0));
    const MessageQueueService queue(name, OpenMode::CreateNew, Access::ReadWrite, true);
    BasicString error;
    const struct {
        IServiceObject* object;
        const char* name;
        ServiceType type;
    } table[] = {
        {factory->CreateProcess(), "ProcessService", ServiceType::Process},
        {factory->CreateSharedLibrary(), "SharedLibraryService", ServiceType::SharedLibrary},
        {factory->CreateMutex(false), "MutexService", ServiceType::Mutex},
        {factory->CreateSemaphore(0), "SemaphoreService", ServiceType::Semaphore},
        {factory->CreateSemaphore(name), "SemaphoreService", ServiceType::Semaphore},
        {factory->CreateTimer(0, "", 0, nullptr, nullptr, 0), "TimerService", ServiceType::Timer},
        {factory->CreateThread(nullptr), "ThreadService", ServiceType::Thread},
        {factory->CreateThread(nullptr, nullptr), "ThreadService", ServiceType::Thread},
        {factory->CreateThread(nullptr, nullptr, "", 0, 0, 0), "ThreadService", ServiceType::Thread},
        {factory->CreateSharedMemory(name, 1, ISharedMemoryService::mode::Create), "SharedMemoryService",
         ServiceType::SharedMemory},
        {factory->CreateSocket(ISocketService::SocketType::Stream, ISocketService::SocketDomain::Ipv4,
                               ISocketService::SocketBlockingMode::Blocking),
         "SocketService", ServiceType::Socket},
        {factory->CreateSocket(nullptr), "SocketService", ServiceType::Socket},
        {factory->CreateNonAbstractIpcSocket(), "SocketService", ServiceType::Socket},
        {factory->CreateFile("/", IFileService::FileMode::Open, IFileService::FileAccess::Read, false),
         "FileServiceBase", ServiceType::File},
        {factory->CreateRWLock(), "RWLockService", ServiceType::RWLock},
        {factory->CreateMessageQueue(name, true), "MessageQueueService", ServiceType::MessageQueue},
        {factory->CreateMessageQueue(name, OpenMode::Open, Access::ReadOnly, true), "MessageQueueService",
         ServiceType::MessageQueue},
        {factory->CreateMessageQueue(name, OpenMode::Open, Access::ReadOnly, true, 0, 0), "MessageQueueService",
         ServiceType::MessageQueue},
        {factory->CreateConditionVariable(), "CondVariableService", ServiceType::ConditionVariable},
        {factory->CreateTraceController(), "TraceControllerService", ServiceType::TraceController},
        {factory->CreateSignalHandler(), "SignalHandlerService", ServiceType::SignalHandler},
        {factory->CreateNetworkInterfaceInfo("lo", error), "NetworkInterfaceInfo", static_cast<ServiceType>(18)},
    };
    for (const auto& row : table) {
        const std::unique_ptr<IServiceObject> object(row.object);
        EXPECT_EQ(object->GetServiceName(), row.name);
        EXPECT_EQ(object->GetServiceType(), row.type);
        EXPECT_EQ(factory->GetRegisteredServiceObjects().count(row.object), 1U);
    }
    mq_unlink(name.c_str());
    shm_unlink(name.c_str());
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

TEST_F(ServiceFactoryTest, RegistersFromAllThreads) {
    std::vector<std::thread> threads(4);
    for (std::thread& thread : threads) {
        thread = std::thread([] {
            for (int i = 0; i < 500; ++i) {
                const TestService service;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(LiveObjects(), 0U);
}

TEST_F(ServiceFactoryTest, RegistryThatIsHeldForLongIsWaitedFor) {
    std::thread other;
    std::atomic<bool> waits{false};
    FailingCall blocking("pthread_mutex_lock", [&] { waits = true; });
    blocking.InAnyThread();
    {
        const FailingCall held("pthread_mutex_unlock", [&] {
            other = std::thread([] { const TestService service; });
            while (!waits) {
                std::this_thread::yield();
            }
        });
        const TestService service;
    }
    other.join();
}

// In a child, since the registry stays locked when it cannot be unlocked.
TEST_F(ServiceFactoryTest, RegistrationThatFailsLeavesNoEntry) {
    Child child([this] {
        ExpectFailures(Told::ByErrnoBesideCode,
                       {{"pthread_mutex_trylock", [] { TestService(); }, "TryLock: Mutex could not be trylocked: {}"}});
        ExpectFailures(Told::ByCode,
                       {{"pthread_mutex_unlock", [] { TestService(); }, "Unlock: Mutex could not be unlocked: {}"}});
        EXPECT_EQ(LiveObjects(), 0U);
        EXPECT_TRUE(factory->GetRegisteredServiceObjects().empty());
        return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.Wait(), 0);
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
    Child child([] {
        ServiceFactory::DisposeServiceFactory();
        return 0;
    });
    EXPECT_EQ(child.Wait(), 128 + SIGABRT);
}

TEST_F(ServiceFactoryTest, ServiceObjectThatOutlivesTheFactoryEndsTheProcess) {
    Child child([] {
        const TestService service;
        ServiceFactory::DisposeServiceFactory();
        return 0;
    });
    EXPECT_EQ(child.Wait(), 128 + SIGABRT);
}

}  // namespace
