#include "support/Test.h"

#include <sys/mman.h>

namespace {

constexpr char noAppDomain[] = "Exception: Singleton instance of type 'Kel::AppDomain' was not created yet!";
constexpr char ofFactory[] = "of type 'Kel::System::Ve::Internal::ServiceFactory' ";
constexpr auto withoutName = static_cast<ServiceType>(18);

class TestService : public ServiceObjectBase {
public:
    explicit TestService(ServiceType type = ServiceType::Thread, bool registers = true)
        : ServiceObjectBase("TestService", type, registers) {}
};

void Make() { const TestService service; }

// What was written to standard output, and flushed, while `operation` ran; its base is decimal afterwards.
std::string OutputOf(const std::function<void()>& operation) {
    struct Buffer : std::stringbuf {
        int sync() override {
            flushed = str();
            return 0;
        }
        std::string flushed;
    } buffer;
    std::streambuf* const previous = std::cout.rdbuf(&buffer);
    operation();
    std::cout.rdbuf(previous);
    return buffer.flushed;
}

using ServiceFactoryTest = FactoryTest;
using NoFactoryTest = AppDomainTest;

TEST(NoAppDomainTest, NothingCanBeMade) {
    EXPECT_TRUE(ComesTo(&ServiceFactory::CreateServiceFactory, noAppDomain));
    EXPECT_TRUE(ComesTo(&ServiceFactory::DisposeServiceFactory, noAppDomain));
    EXPECT_TRUE(ComesTo(&Make, noAppDomain));
    const TestService unregistered(ServiceType::Thread, false);
}

TEST_F(NoFactoryTest, FactoryIsMadeOnceUntilItIsDisposed) {
    for (int i = 0; i < 2; ++i) {
        ServiceFactory::DisposeServiceFactory();
        EXPECT_TRUE(ComesTo(
            &Make, std::string("Exception: AppDomain Singleton instance ") + ofFactory + "was not created yet!"));
        ServiceFactory::CreateServiceFactory();
        EXPECT_TRUE(ComesTo(&ServiceFactory::CreateServiceFactory,
                            std::string("Exception: AppDomain Singleton instance ") + ofFactory + "was created yet!"));
        Make();
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
    const Interposition appDomainGoes("pthread_mutex_init", [&](const Interposition::Arguments& arguments) {
        Singleton<AppDomain>::pInstance = nullptr;
        return appDomainGoes.CallThrough(arguments);
    });
    EXPECT_TRUE(ComesTo(&ServiceFactory::CreateServiceFactory, noAppDomain));
}

TEST_F(NoFactoryTest, FactoryWithoutItsMutexRegistersNothing) {
    TestService service(ServiceType::Thread, false);
    alignas(LinuxServiceFactory) std::byte storage[sizeof(LinuxServiceFactory)];
    auto* const unfinished = reinterpret_cast<ServiceFactory*>(storage);
    const Interposition init("pthread_mutex_init", [&](const Interposition::Arguments&) {
        EXPECT_TRUE(ComesTo([&] { unfinished->RegisterServiceObject(&service); },
                            "VeException: RegisterServiceObject: Mutex not initialized yet."));
        EXPECT_TRUE(ComesTo([&] { unfinished->ReleaseServiceObject(nullptr); },
                            "VeException: ReleaseServiceObject: Mutex not initialized yet."));
        return EINVAL;
    });
    EXPECT_TRUE(ComesTo([&] { new (storage) LinuxServiceFactory; },
                        "VeException: Init: Mutex could not be initiated: Invalid argument"));
}

TEST_F(ServiceFactoryTest, MakesEachServiceOrLeavesNothing) {
    const BasicString name = UniqueName("of-whatever-the-factory-makes");
    const auto semaphore = Own(factory->CreateSemaphore(name, 0));
    const auto queueMode = IMessageQueueService::OpenMode::OpenOrCreate;
    const auto queueAccess = IMessageQueueService::Access::ReadWrite;
    const auto queue = Own(factory->CreateMessageQueue(name, queueMode, queueAccess, true));
    const auto run = [](void*) -> void* { return nullptr; };
    const auto memoryMode = ISharedMemoryService::mode::Create;
    const TemporaryFolder folder;
    const BasicString path = folder / "file";
    const auto fileMode = IFileService::FileMode::Create;
    const auto fileAccess = IFileService::FileAccess::Write;
    BasicString error;
    const std::tuple<const char*, ServiceType, std::function<IServiceObject*()>> table[] = {
        {"ProcessService", ServiceType::Process, [&] { return factory->CreateProcess(); }},
        {"SharedLibraryService", ServiceType::SharedLibrary, [&] { return factory->CreateSharedLibrary(); }},
        {"MutexService", ServiceType::Mutex, [&] { return factory->CreateMutex(false); }},
        {"SemaphoreService", ServiceType::Semaphore, [&] { return factory->CreateSemaphore(0); }},
        {"SemaphoreService", ServiceType::Semaphore, [&] { return factory->CreateSemaphore(name + "2", 0); }},
        {"SemaphoreService", ServiceType::Semaphore, [&] { return factory->CreateSemaphore(name); }},
        {"TimerService", ServiceType::Timer, [&] { return factory->CreateTimer(1, name, 0, nullptr, nullptr, 0); }},
        {"ThreadService", ServiceType::Thread, [&] { return factory->CreateThread(run, nullptr, name, 0, 0, 0); }},
        {"SharedMemoryService", ServiceType::SharedMemory,
         [&] { return factory->CreateSharedMemory(name, 1, memoryMode); }},
        {"SocketService", ServiceType::Socket, [&] { return factory->CreateNonAbstractIpcSocket(); }},
        {"FileServiceBase", ServiceType::File, [&] { return factory->CreateFile(path, fileMode, fileAccess, false); }},
        {"RWLockService", ServiceType::RWLock, [&] { return factory->CreateRWLock(); }},
        {"MessageQueueService", ServiceType::MessageQueue, [&] { return factory->CreateMessageQueue(name, false); }},
        {"CondVariableService", ServiceType::ConditionVariable, [&] { return factory->CreateConditionVariable(); }},
        {"TraceControllerService", ServiceType::TraceController, [&] { return factory->CreateTraceController(); }},
        {"SignalHandlerService", ServiceType::SignalHandler, [&] { return factory->CreateSignalHandler(); }},
        {"NetworkInterfaceInfo", withoutName, [&] { return factory->CreateNetworkInterfaceInfo("lo", error); }},
    };
    for (const auto& [serviceName, serviceType, create] : table) {
        SCOPED_TRACE(serviceName);
        auto made = Own(create());
        EXPECT_EQ(made->GetServiceName(), serviceName);
        EXPECT_EQ(made->GetServiceType(), serviceType);
        made.reset();
        ExpectBadAlloc([&, &make = create] {
            // What the last object has left in the registry is this one's, and the registry allocates for the next.
            const auto other = Own(factory->CreateMutex(false));
            Own(make());
        });
    }
    queue->Unlink();
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
#ifndef __SANITIZE_THREAD__  // With its instructions in the destructor, the exception is gone by then.
            {"pthread_rwlock_rdlock", &Make, "ends the process: " + domain, 1},
            {"pthread_mutex_trylock", &Make, "ends the process: " + lock, 2},
            {"pthread_mutex_unlock", &Make, "ends the process: " + unlock, 2},
#endif
            {"pthread_mutex_trylock", &Make, lock},
            {"pthread_mutex_trylock", &Make, lock, 1},
            {"pthread_mutex_unlock", &Make, unlock},
            {"pthread_mutex_unlock", &Make, unlock, 1},
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

TEST_F(ServiceFactoryTest, ThreadsMakeAndDeleteObjectsInAnyOrder) {
    const auto work = [&] {
        std::unique_ptr<TestService> services[8];
        for (unsigned int i = 0; i < 5000; ++i) {
            auto& service = services[i * i % 13 % 8];
            service = service ? nullptr : std::make_unique<TestService>();
        }
        for (const auto& service : services) {
            EXPECT_EQ(factory->GetRegisteredServiceObjects().count(service.get()), service ? 1U : 0U);
        }
    };
    work();
    std::thread other(work);
    work();
    other.join();
}

TEST_F(ServiceFactoryTest, RegistryThatIsHeldForLongIsWaitedFor) {
    const Interposition held("pthread_mutex_trylock", [](const Interposition::Arguments&) { return EBUSY; });
    Make();
}

TEST_F(ServiceFactoryTest, ReportsWhatIsAlive) {
    const std::vector<TestService> threads(9);
    const auto mutex = Own(factory->CreateMutex(false));
    std::ostringstream lines;
    for (const auto& entry : factory->GetRegisteredServiceObjects()) {
        lines << "WARN: service object " << entry.first << " of type '"
              << (entry.first == mutex.get() ? "Mutex" : "Thread") << "' was not destroyed.\n";
    }
    const auto report = [this] { factory->PrintAllNotDestroyedServiceObjects(); };
    EXPECT_EQ(OutputOf(report), "WARN: 10 service objects were not destroyed:\n" + lines.str());
    EXPECT_EQ(OutputOf(report), "WARN: a service objects were not destroyed:\n" + lines.str());
    std::cout << std::dec;
}

TEST_F(ServiceFactoryTest, ReportOfAThreadThatIsToBeCancelledIsComplete) {
    const auto mutex = Own(factory->CreateMutex(false));
    testing::internal::CaptureStdout();
    EXPECT_TRUE(HasNoCancellationPoint([this] { factory->PrintAllNotDestroyedServiceObjects(); }));
    EXPECT_NE(testing::internal::GetCapturedStdout().find("'Mutex' was not destroyed.\n"), std::string::npos);
    EXPECT_TRUE(std::cout.good());
    std::cout << std::dec;
}

TEST_F(ServiceFactoryTest, ReportEndsAtATypeWithoutName) {
    const TestService service(withoutName);
    const auto report = [this] { factory->PrintAllNotDestroyedServiceObjects(); };
    EXPECT_TRUE(ComesTo(report, "Exception: Invalid value for Enum 'Kel::System::Ve::ServiceType' occurs: 18"));
    EXPECT_TRUE(std::cout.good());
    std::cout << std::dec;
}

// As in a handler that the host has registered before anything else was made.
TEST_F(NoFactoryTest, LivingObjectsAreReportedAtTheVeryEndOfTheProcess) {
    Child child([]() -> int {
        static_cast<void>(std::atexit([] {
            const std::string report = OutputOf(&ServiceFactory::DisposeServiceFactory);
            _exit(report.find(" of type 'Mutex' was not destroyed.") != std::string::npos ? 0 : 1);
        }));
        ServiceFactory::CreateServiceFactory();
        ServiceFactory::GetInstance()->CreateMutex(false);
        std::ostringstream() << ServiceType::Mutex;
        std::exit(2);  // NOLINT(concurrency-mt-unsafe): there is no other thread.
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST_F(ServiceFactoryTest, ServiceObjectThatOutlivesTheFactoryOrHasNoTypeEndsTheProcess) {
    for (const ServiceType type : {ServiceType::Thread, withoutName}) {
        Child child([&] {
            const TestService service(type);
            ServiceFactory::DisposeServiceFactory();
            return 0;
        });
        EXPECT_EQ(child.Wait(), 128 + SIGABRT);
    }
}

}  // namespace
