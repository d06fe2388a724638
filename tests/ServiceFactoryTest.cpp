#include "support/Test.h"

#include <mqueue.h>
#include <sys/mman.h>

namespace {

constexpr char noAppDomain[] = "Exception: Singleton instance of type 'Kel::AppDomain' was not created yet!";
constexpr char ofFactory[] = "of type 'Kel::System::Ve::Internal::ServiceFactory' ";

class TestService : public ServiceObjectBase {
public:
    explicit TestService(bool registers = true) : ServiceObjectBase("TestService", ServiceType::Thread, registers) {}
};

void Make() { const TestService service; }

// What `operation` writes to standard output.
std::string OutputOf(const std::function<void()>& operation) {
    testing::internal::CaptureStdout();
    operation();
    return testing::internal::GetCapturedStdout();
}

using ServiceFactoryTest = FactoryTest;
using NoFactoryTest = AppDomainTest;

TEST(NoAppDomainTest, NothingCanBeMade) {
    EXPECT_TRUE(ComesTo(&ServiceFactory::CreateServiceFactory, noAppDomain));
    EXPECT_TRUE(ComesTo(&ServiceFactory::DisposeServiceFactory, noAppDomain));
    EXPECT_TRUE(ComesTo(&Make, noAppDomain));
    const TestService unregistered(false);
}

TEST_F(NoFactoryTest, FactoryIsMadeOnceUntilItIsDisposed) {
    const std::string instance = std::string("Exception: AppDomain Singleton instance ") + ofFactory;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(OutputOf(&ServiceFactory::DisposeServiceFactory), "");
        EXPECT_TRUE(ComesTo(&Make, instance + "was not created yet!"));
        ServiceFactory::CreateServiceFactory();
        EXPECT_TRUE(ComesTo(&ServiceFactory::CreateServiceFactory, instance + "was created yet!"));
    }
    EXPECT_EQ(OutputOf(&ServiceFactory::DisposeServiceFactory), "");
}

// As when another thread is faster. In a child, since the factory that is refused stays allocated.
TEST_F(NoFactoryTest, SecondFactoryAtTheSameTimeIsRefused) {
    EXPECT_TRUE(SucceedsInChild([this] {
        appDomain.Add(typeid(ServiceFactory), nullptr);
        const long before = LiveAllocations();
        EXPECT_TRUE(ComesTo(&ServiceFactory::CreateServiceFactory,
                            std::string("Exception: AppDomain Singleton ") + ofFactory + "has been added yet"));
        EXPECT_GT(LiveAllocations(), before);
    }));
}

TEST_F(NoFactoryTest, FactoryThatCannotBeMadeLeavesNothing) {
    ExpectBadAlloc([] {
        ServiceFactory::CreateServiceFactory();
        ServiceFactory::DisposeServiceFactory();
    });
}

TEST_F(ServiceFactoryTest, MakesEachServiceOrLeavesNothing) {
    const BasicString name = UniqueName("of-whatever-the-factory-makes");
    const auto open = IFileService::FileMode::Open;
    const auto read = IFileService::FileAccess::Read;
    const auto openOrCreate = IMessageQueueService::OpenMode::OpenOrCreate;
    const auto readWrite = IMessageQueueService::Access::ReadWrite;
    const auto createMemory = ISharedMemoryService::mode::Create;
    BasicString error;
    // Name and type of the service, and how it is made.
    const std::pair<const char*, std::function<IServiceObject*()>> table[] = {
        {"ProcessService, Process", [&] { return factory->CreateProcess(); }},
        {"SharedLibraryService, SharedLibrary", [&] { return factory->CreateSharedLibrary(); }},
        {"MutexService, Mutex", [&] { return factory->CreateMutex(false); }},
        {"SemaphoreService, Semaphore", [&] { return factory->CreateSemaphore(0); }},
        {"SemaphoreService, Semaphore", [&] { return factory->CreateSemaphore(name, 0); }},
        {"TimerService, Timer", [&] { return factory->CreateTimer(1, name, 0, nullptr, nullptr, 0); }},
        {"ThreadService, Thread", [&] { return factory->CreateThread(nullptr, nullptr, name, 0, 0, 0); }},
        {"SharedMemoryService, SharedMemory", [&] { return factory->CreateSharedMemory(name, 1, createMemory); }},
        {"SocketService, Socket", [&] { return factory->CreateNonAbstractIpcSocket(); }},
        {"FileServiceBase, File", [&] { return factory->CreateFile("/proc/self/mountinfo", open, read, false); }},
        {"RWLockService, RWLockService", [&] { return factory->CreateRWLock(); }},
        {"MessageQueueService, MessageQueue",
         [&] { return factory->CreateMessageQueue(name, openOrCreate, readWrite, true); }},
        {"CondVariableService, ConditionVariable", [&] { return factory->CreateConditionVariable(); }},
        {"TraceControllerService, TraceController", [&] { return factory->CreateTraceController(); }},
        {"SignalHandlerService, SignalHandler", [&] { return factory->CreateSignalHandler(); }},
        {"NetworkInterfaceInfo, 18", [&] { return factory->CreateNetworkInterfaceInfo("lo", error); }},
    };
    for (const auto& [nameAndType, create] : table) {
        SCOPED_TRACE(nameAndType);
        std::ostringstream actual;
        auto made = Own(create());
        actual << made->GetServiceName() << ", " << made->GetServiceType();
        EXPECT_EQ(actual.str(), nameAndType);
        made.reset();
        ExpectBadAlloc([&, &make = create] {
            // What the last object has left in the registry is this one's, and the registry allocates for the next.
            const auto other = Own(factory->CreateMutex(false));
            Own(make());
        });
    }
    mq_unlink(name.c_str());
    shm_unlink(name.c_str());
}

// In a child: where unlocking fails, the registry stays locked by this thread, which may lock it again.
TEST_F(ServiceFactoryTest, FailuresAreReported) {
    const std::string domain = "Exception: Lock of the AppDomain failed: Invalid argument";
    const std::string lock = "VeException: TryLock: Mutex could not be trylocked: Permission denied";
    const std::string unlock = "VeException: Unlock: Mutex could not be unlocked: Invalid argument";
    EXPECT_TRUE(SucceedsInChild([&] {
        ExpectFailures({
            {"pthread_rwlock_init", [] { AppDomain(); }, domain},
            {"pthread_rwlock_wrlock", [&] { appDomain.Add(typeid(int), nullptr); }, domain},
            {"pthread_rwlock_rdlock", &Make, domain},
            {"pthread_mutex_unlock", &Make, unlock},
            {"pthread_mutex_unlock", &Make, unlock, 1},
            {"pthread_mutex_trylock", &Make, lock},
            {"pthread_mutex_trylock", &Make, lock, 1},
        });
        EXPECT_TRUE(factory->GetRegisteredServiceObjects().empty());
    }));
}

TEST_F(ServiceFactoryTest, KnowsItsVersion) {
    const BasicVersion version = factory->GetVersion();
    EXPECT_EQ(version.GetText() + version.GetSuffix(), "2024.0.8 LTS");
    EXPECT_EQ((std::vector{version.GetMajor(), version.GetMinor(), version.GetPatch(), version.GetBuild()}),
              (std::vector{24U, 0U, 8U, 183U}));
}

TEST_F(ServiceFactoryTest, CountsEveryRegistrationAndRelease) {
    TestService service(false);
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

TEST_F(ServiceFactoryTest, ThreadsMakeAndDeleteObjectsInAnyOrder) {
    TestService stays;
    const auto work = [] {
        for (int i = 0; i < 5000; ++i) {
            auto first = std::make_unique<TestService>();
            const TestService second;
            first.reset();
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(factory->GetRegisteredServiceObjects().count(&stays), 1U);
    // What the last one has left in the registry is used again.
    const long before = MadeAllocations();
    Make();
    EXPECT_EQ(MadeAllocations(), before);
}

TEST_F(ServiceFactoryTest, RegistryThatIsHeldForLongIsWaitedFor) {
    const Interposition held("pthread_mutex_trylock", [](const Interposition::Arguments&) { return EBUSY; });
    Make();
}

TEST_F(ServiceFactoryTest, ReportsWhatIsAliveAndIsNotCancelledMeanwhile) {
    const std::vector<TestService> threads(9);
    const auto mutex = Own(factory->CreateMutex(false));
    std::ostringstream lines;
    for (const auto& entry : factory->GetRegisteredServiceObjects()) {
        lines << "WARN: service object " << entry.first << " of type '"
              << (entry.first == mutex.get() ? "Mutex" : "Thread") << "' was not destroyed.\n";
    }
    const auto report = [this] { factory->PrintAllNotDestroyedServiceObjects(); };
    EXPECT_EQ(OutputOf(report), "WARN: 10 service objects were not destroyed:\n" + lines.str());
    const std::string output = OutputOf([&] { EXPECT_TRUE(HasNoCancellationPoint(report)); });
    EXPECT_EQ(output, "WARN: a service objects were not destroyed:\n" + lines.str());
    std::cout << std::dec;
}

TEST_F(ServiceFactoryTest, ReportEndsAtATypeWithoutName) {
    BasicString error;
    const auto networkInterface = Own(factory->CreateNetworkInterfaceInfo("lo", error));
    EXPECT_TRUE(ComesTo([this] { factory->PrintAllNotDestroyedServiceObjects(); },
                        "Exception: Invalid value for Enum 'Kel::System::Ve::ServiceType' occurs: 18"));
    EXPECT_TRUE(std::cout.good());
    std::cout << std::dec;
}

}  // namespace
