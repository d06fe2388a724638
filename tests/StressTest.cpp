// Threads that make, use, share and delete services of every kind at random, beside processes that use some of them,
// too, and are killed at any moment. Each operation does what it promises, and nothing is left behind.

#include "support/Test.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/prctl.h>

#include <array>
#include <random>

namespace {

using Random = std::minstd_rand;

unsigned int Below(unsigned int limit, Random& random) { return static_cast<unsigned int>(random()) % limit; }

// Of the environment, for longer runs: see scripts/stress.
unsigned int Setting(const char* name, unsigned int otherwise) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment meanwhile.
    const char* const value = getenv(name);
    return value != nullptr ? static_cast<unsigned int>(std::stoul(value)) : otherwise;
}

IServiceFactory& Factory() { return *ServiceFactory::GetInstance(); }

void ExpectDoneOr(const std::string& exception, const Operation& operation) {
    const std::string outcome = operation.Outcome();
    EXPECT_TRUE(outcome == "done" || outcome == exception) << outcome;
}

// Nobody else is here at the same time.
void BeAlone(std::atomic<int>& inside) {
    EXPECT_EQ(++inside, 1);
    // Others come, if they can.
    std::this_thread::yield();
    --inside;
}

// A store that is guarded by a mutex and waited for with a condition.
template <typename Mutex, typename Condition, auto... sharedWith>
struct Store {
    Store() { mutex.Init(false, sharedWith...); }

    void Use(Random& random) {
        if (Below(2, random) == 0) {
            mutex.Lock();
        } else if (mutex.TimedLock(Below(3, random)) != 0) {
            return;
        }
        BeAlone(inside);
        if (Below(2, random) == 0) {
            ++items;
            Below(2, random) == 0 ? condition.NotifyOne() : condition.NotifyAll();
        } else {
            while (items == 0 && condition.WaitFor(mutex, Below(3, random))) {
            }
            items -= items > 0 ? 1 : 0;
        }
        mutex.Unlock();
    }

    Mutex mutex;
    Condition condition;
    std::atomic<int> inside{0};
    unsigned int items = 0;
};

struct RWLocks {
    void Use(Random& random) {
        if (Below(3, random) == 0 ? lock->TimedAcquireWriteLock(1) : lock->TryAcquireWriteLock()) {
            EXPECT_EQ(--users, -1);
            ++users;
            lock->ReleaseWriteLock();
        }
        if (Below(3, random) == 0 ? lock->TimedAcquireReadLock(1) : lock->TryAcquireReadLock()) {
            EXPECT_GT(++users, 0);
            --users;
            lock->ReleaseReadLock();
        }
    }

    std::unique_ptr<IRWLockService> lock = Own(Factory().CreateRWLock());
    // How many read; negative while somebody writes.
    std::atomic<int> users{0};
};

struct Semaphores {
    ~Semaphores() { EXPECT_EQ(semaphore->GetValue(), balance); }

    void Use(Random& random) {
        if (Below(2, random) == 0) {
            semaphore->Post();
            ++balance;
        } else if (Below(2, random) == 0 ? semaphore->TryWait() : semaphore->Wait(1 + Below(2, random))) {
            --balance;
        }
    }

    std::unique_ptr<ISemaphoreService> semaphore = Own(Factory().CreateSemaphore(2));
    std::atomic<int> balance{2};
};

struct Timers {
    void Use(Random& random) {
        const auto start = [&] { timer->Start(); };
        Below(2, random) == 0 ? timer->Stop() : ExpectDoneOr("VeException: Start: Timer was started yet!", start);
    }
    static void Tick(void* inside) { BeAlone(*static_cast<std::atomic<int>*>(inside)); }

    std::atomic<int> inside{0};
    // Goes first: until then the handler may be called.
    std::unique_ptr<ITimerService> timer = Own(Factory().CreateTimer(500, "a timer", 0, &inside, &Tick, 0));
};

// A thread that waits until it is cancelled, wherever it is.
struct Threads {
    Threads() { thread->StartThread(); }
    // Its deletion waits for it.
    ~Threads() { thread->Cancel(); }
    void Use(Random& random) { Below(4, random) == 0 ? thread->Cancel() : semaphore->Post(); }
    static void* Run(void* argument) {
        for (;;) {
#ifdef __SANITIZE_THREAD__  // It loses track of a thread that is cancelled while it waits.
            static_cast<ISemaphoreService*>(argument)->TryWait();
            pthread_testcancel();
#else
            static_cast<ISemaphoreService*>(argument)->Wait(0);
#endif
        }
    }

    std::unique_ptr<ISemaphoreService> semaphore = Own(Factory().CreateSemaphore(0));
    std::unique_ptr<IThreadService> thread = Own(Factory().CreateThread(&Run, semaphore.get()));
};

// What each thread has for itself.
void UseOthers(Random& random) {
    const BasicString name = UniqueName("stress-of-thread") + std::to_string(gettid());
    BasicString error;
    Own(Factory().CreateFile("/tmp" + name, IFileService::FileMode::CreateNew, IFileService::FileAccess::Write, false));
    EXPECT_TRUE(FileServiceBase::Delete("/tmp" + name));
    const auto memory = Own(Factory().CreateSharedMemory(name, 4096, ISharedMemoryService::mode::Create));
    // The object leaves it mapped, and named.
    munmap(memory->GetAddress(), memory->GetSize());
    shm_unlink(name.c_str());
    const auto library = Own(Factory().CreateSharedLibrary());
    library->Load(PluginPath());
    EXPECT_NE(library->GetFunctionAddress("PluginAnswer"), nullptr);
    EXPECT_NE(Own(Factory().CreateNetworkInterfaceInfo("lo", error)), nullptr);
    Own(Factory().CreateTraceController())->IsSessionDaemonAlive();
    if (Below(20, random) == 0) {
        int exitCode = -1;
        Own(Factory().CreateProcess())->StartBlocking("", "/bin/true", "", exitCode);
        EXPECT_EQ(exitCode, 0);
    }
}

// Objects of a kind that all threads share. They are replaced now and then; the last user of one deletes it.
template <typename Object>
std::function<void(Random& random)> Shared() {
    return [slots = std::make_shared<std::array<std::shared_ptr<Object>, 2>>()](Random& random) {
        std::shared_ptr<Object>& slot = (*slots)[Below(2, random)];
        std::shared_ptr<Object> object = std::atomic_load(&slot);
        if (!object || Below(20, random) == 0) {
            object = std::make_shared<Object>();
            std::atomic_store(&slot, object);
        }
        object->Use(random);
    };
}

// What processes share that may be killed at any moment.
struct Common {
    const BasicString name = UniqueName("stress");
    IpcMutexService mutex;
    std::atomic<int> holder{0};
    std::atomic<bool> isOver{false};
};

void UseCommon(Common& common, Random& random) {
    bool isHeld = false;
    ExpectDoneOr("VeException: TryLock: Mutex could not be trylocked: Owner died",
                 [&] { isHeld = common.mutex.TryLock(); });
    const auto semaphore = Own(Factory().CreateSemaphore(common.name));
    if (isHeld) {
        // A process that was killed in here is still noted.
        EXPECT_NE(common.holder.exchange(gettid()), gettid());
        semaphore->Wait(1);
        common.holder = 0;
        common.mutex.Unlock();
    }
    semaphore->Post();
    semaphore->TryWait();
    const auto queue = Own(Factory().CreateMessageQueue(common.name, false));
    char message[16] = "to a peer";
    ExpectDoneOr("VeException: Could not send message. Error Resource temporarily unavailable.",
                 [&] { queue->Send(message, Below(sizeof message, random), 0, 0); });
    unsigned int priority = 0;
    EXPECT_GE(queue->Receive(message, sizeof message, priority, 0), 0);
}

// Starts, kills and replaces a process that uses what is common.
int KillPeers(Common& common, Random random) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (!common.isOver) {
        Child peer([&] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            while (!testing::Test::HasFailure()) {
                UseCommon(common, random);
            }
            return EXIT_FAILURE;
        });
        std::this_thread::sleep_for(milliseconds(Below(20, random)));
        if (peer.Kill() != 128 + SIGKILL) {
            return EXIT_FAILURE;
        }
    }
    return EXIT_SUCCESS;
}

using StressTest = FactoryTest;

TEST_F(StressTest, EverythingAtOnceBreaksNothingAndLeavesNothing) {
    const unsigned int seed = Setting("KEL_STRESS_SEED", std::random_device()());
    const auto end = steady_clock::now() + std::chrono::seconds(Setting("KEL_STRESS_SECONDS", 2));
    std::cout << "seed " << seed << std::endl;

    SharedObject<Common> common;
    common->mutex.Init(false);
    const auto semaphore = Own(factory->CreateSemaphore(common->name, 0));
    const auto queue = Own(factory->CreateMessageQueue(common->name, IMessageQueueService::OpenMode::CreateNew,
                                                       IMessageQueueService::Access::ReadWrite, false, 4, 16));
    Child keeper([&] { return KillPeers(*common, Random(seed)); });

    std::atomic<unsigned long> rounds{0};
    {
        const std::pair<const char*, std::function<void(Random & random)>> works[] = {
            {"mutex, condition variable",
             Shared<Store<MutexService, ConditionVariableService, MutexService::ProcessPrivate>>()},
            {"those for processes", Shared<Store<IpcMutexService, IpcCondVarService>>()},
            {"read-write lock", Shared<RWLocks>()},
            {"semaphore", Shared<Semaphores>()},
            {"timer", Shared<Timers>()},
            {"thread", Shared<Threads>()},
            {"others", &UseOthers},
            {"objects of killed processes", [&](Random& random) { UseCommon(*common, random); }},
        };
        std::vector<std::thread> threads;
        for (unsigned int i = 0; i < Setting("KEL_STRESS_THREADS", 8); ++i) {
            threads.emplace_back([&, random = Random(seed + i)]() mutable {
                for (; steady_clock::now() < end && !HasFailure(); ++rounds) {
                    const auto& [name, use] = works[Below(std::size(works), random)];
                    EXPECT_EQ(Operation([&, use = use] { use(random); }).Outcome(), "done") << name;
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    std::cout << rounds << " rounds" << std::endl;
    common->isOver = true;
    EXPECT_EQ(keeper.Wait(), EXIT_SUCCESS);
    queue->Unlink();
    EXPECT_EQ(dlopen(PluginPath().c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

}  // namespace
