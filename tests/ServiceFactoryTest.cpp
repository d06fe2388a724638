#include "support/Test.h"

namespace {

constexpr char ofFactory[] = "of type 'Kel::System::Ve::Internal::ServiceFactory' ";

struct TestService : ServiceObjectBase {
    explicit TestService(bool registers = true) : ServiceObjectBase("TestService", ServiceType::Thread, registers) {}
};

void Make() { const TestService service; }

using ServiceFactoryTest = FactoryTest;
using NoFactoryTest = AppDomainTest;

TEST(NoAppDomainTest, NothingCanBeMade) {
    EXPECT_TRUE(ComesTo(&Make, "Exception: Singleton instance of type 'Kel::AppDomain' was not created yet!"));
}

TEST_F(NoFactoryTest, FactoryIsMadeOnceUntilItIsDisposedOrNotAtAll) {
    const std::string instance = std::string("Exception: AppDomain Singleton instance ") + ofFactory;
    ExpectBadAlloc([] {
        ServiceFactory::CreateServiceFactory();
        ServiceFactory::DisposeServiceFactory();
    });
    EXPECT_TRUE(ComesTo(&Make, instance + "was not created yet!"));
    ServiceFactory::CreateServiceFactory();
    EXPECT_TRUE(ComesTo(&ServiceFactory::CreateServiceFactory, instance + "was created yet!"));
    ServiceFactory::DisposeServiceFactory();
}

TEST_F(ServiceFactoryTest, MakesEachServiceOrLeavesNothing) {
    const BasicString name = UniqueName("of-whatever-the-factory-makes");
    const auto openOrCreate = IMessageQueueService::OpenMode::OpenOrCreate;
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
        {"SharedMemoryService, SharedMemory",
         [&] { return factory->CreateSharedMemory(name, 1, ISharedMemoryService::mode::Create); }},
        {"SocketService, Socket", [&] { return factory->CreateNonAbstractIpcSocket(); }},
        {"FileServiceBase, File",
         [&] { return factory->CreateFile("/", FileService::FileMode::Open, FileService::FileAccess::Read, false); }},
        {"RWLockService, RWLockService", [&] { return factory->CreateRWLock(); }},
        {"MessageQueueService, MessageQueue",
         [&] { return factory->CreateMessageQueue(name, openOrCreate, MessageQueueService::Access::ReadWrite, true); }},
        {"CondVariableService, ConditionVariable", [&] { return factory->CreateConditionVariable(); }},
        {"TraceControllerService, TraceController", [&] { return factory->CreateTraceController(); }},
        {"SignalHandlerService, SignalHandler", [&] { return factory->CreateSignalHandler(); }},
        {"NetworkInterfaceInfo, 18", [&] { return factory->CreateNetworkInterfaceInfo("lo", error); }},
    };
    for (const auto& [nameAndType, create] : table) {
        SCOPED_TRACE(nameAndType);
        auto made = Own(create());
        EXPECT_EQ(made->GetServiceName() + ", " + testing::PrintToString(made->GetServiceType()), nameAndType);
        made.reset();
        ExpectBadAlloc([&, &make = create] {
            // What the last object has left in the registry is this one's, and the registry allocates for the next.
            const auto other = Own(factory->CreateMutex(false));
            Own(make());
        });
    }
    Own(factory->CreateMessageQueue(name, true))->Unlink();
    shm_unlink(name.c_str());
}

// In a child: where unlocking fails, the registry stays locked by this thread, which may lock it again. A factory that
// is refused stays allocated.
TEST_F(ServiceFactoryTest, FailuresAreReported) {
    const std::string domain = "Exception: Lock of the AppDomain failed: Invalid argument";
    const std::string unlock = "VeException: Unlock: Mutex could not be unlocked: Invalid argument";
    EXPECT_TRUE(SucceedsInChild([&] {
        ExpectFailures({
            {"pthread_rwlock_init", [] { AppDomain(); }, domain},
            {"pthread_rwlock_wrlock", [&] { appDomain.Add(typeid(int), nullptr); }, domain},
            {"pthread_rwlock_rdlock", &Make, domain},
            {"pthread_mutex_unlock", &Make, unlock},
            {"pthread_mutex_unlock", &Make, unlock, 1},
            {"pthread_mutex_trylock", &Make, "VeException: TryLock: Mutex could not be trylocked: Permission denied"},
        });
        EXPECT_TRUE(factory->GetRegisteredServiceObjects().empty());
        // As when another thread is faster to make the next one.
        appDomain.Withdraw(typeid(ServiceFactory));
        const long before = LiveAllocations();
        EXPECT_TRUE(ComesTo(&ServiceFactory::CreateServiceFactory,
                            std::string("Exception: AppDomain Singleton ") + ofFactory + "has been added yet"));
        EXPECT_GT(LiveAllocations(), before);
    }));
}

TEST_F(ServiceFactoryTest, KnowsItsVersion) {
    const BasicVersion version = factory->GetVersion();
    EXPECT_EQ(version.GetText() + version.GetSuffix(), "2024.0.8 LTS");
    EXPECT_EQ((std::vector{version.GetMajor(), version.GetMinor(), version.GetPatch(), version.GetBuild()}),
              (std::vector{24U, 0U, 8U, 183U}));
}

TEST_F(ServiceFactoryTest, CountsEveryRegistrationAndReleaseAlsoInARegistryThatIsHeldForLong) {
    const Interposition held("pthread_mutex_trylock", [](const auto& /*arguments*/) { return EBUSY; });
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

TEST_F(ServiceFactoryTest, ReportsWhatIsAliveUntilATypeHasNoNameAndIsNotCancelledMeanwhile) {
    const auto report = [this] { factory->PrintAllNotDestroyedServiceObjects(); };
    testing::internal::CaptureStdout();
    // Nothing.
    report();
    const std::vector<TestService> threads(9);
    const auto mutex = Own(factory->CreateMutex(false));
    std::ostringstream lines;
    lines << " service objects were not destroyed:\n";
    for (const auto& entry : factory->GetRegisteredServiceObjects()) {
        lines << "WARN: service object " << entry.first << " of type '"
              << (entry.first == mutex.get() ? "Mutex" : "Thread") << "' was not destroyed.\n";
    }
    EXPECT_TRUE(HasNoCancellationPoint(report));
    report();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "WARN: 10" + lines.str() + "WARN: a" + lines.str());
    BasicString error;
    const auto withoutName = Own(factory->CreateNetworkInterfaceInfo("lo", error));
    EXPECT_TRUE(ComesTo(report, "Exception: Invalid value for Enum 'Kel::System::Ve::ServiceType' occurs: 18"));
    EXPECT_TRUE(std::cout.good());
    std::cout << std::dec;
}

}  // namespace
