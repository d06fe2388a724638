// Threads that make, use, share and delete services of every kind at random, beside processes that use some of them,
// too, and are killed at any moment. Each operation does what it promises, and nothing is left behind.

#include "support/Test.h"

#include <dlfcn.h>

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

// Nobody else comes before this one has gone.
void BeAlone(std::atomic<int>& inside) {
    EXPECT_EQ(++inside, 1);
    // Others come, if they can.
    std::this_thread::yield();
    EXPECT_EQ(--inside, 0);
}

// What is guarded by a mutex and waited for with a condition.
template <typename Mutex, typename Condition, auto... sharedWith>
struct Guarded {
    Guarded() { mutex.Init(false, sharedWith...); }

    void Use(Random& random) {
        if (mutex.TimedLock(Below(3, random)) != 0) {
            mutex.Lock();
        }
        BeAlone(inside);
        condition.WaitFor(mutex, Below(3, random));
        BeAlone(inside);
        Below(2, random) == 0 ? condition.NotifyOne() : condition.NotifyAll();
        mutex.Unlock();
    }

    Mutex mutex;
    Condition condition;
    std::atomic<int> inside{0};
};

struct RWLocks {
    void Use(Random& random) {
        if (lock->TimedAcquireWriteLock(Below(3, random))) {
            BeAlone(inside);
            lock->ReleaseWriteLock();
        }
        if (lock->TryAcquireReadLock()) {
            ++inside;
            --inside;
            lock->ReleaseReadLock();
        }
    }

    std::unique_ptr<IRWLockService> lock = Own(Factory().CreateRWLock());
    std::atomic<int> inside{0};
};

struct Semaphores {
    ~Semaphores() { EXPECT_EQ(semaphore->GetValue(), balance); }

    void Use(Random& random) {
        if (semaphore->TryWait() || semaphore->Wait(1 + Below(2, random))) {
            --balance;
        }
        semaphore->Post();
        ++balance;
    }

    std::unique_ptr<ISemaphoreService> semaphore = Own(Factory().CreateSemaphore(0));
    std::atomic<int> balance{0};
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

// A thread that ends here if it has been cancelled.
void* Run(void* /*argument*/) {
    pthread_testcancel();
    return nullptr;
}

// What each thread has for itself.
void UseOthers(Random& /*random*/) {
    const BasicString name = UniqueName("stress-of-thread") + std::to_string(gettid());
    BasicString error;
    Own(Factory().CreateFile("/tmp" + name, IFileService::FileMode::CreateNew, IFileService::FileAccess::Write, false));
    EXPECT_TRUE(FileServiceBase::Delete("/tmp" + name));
    const auto memory = Own(Factory().CreateSharedMemory(name, 4096, ISharedMemoryService::mode::Create));
    // The object leaves it mapped, and named.
    munmap(memory->GetAddress(), memory->GetSize());
    shm_unlink(name.c_str());
    Own(Factory().CreateSharedLibrary())->Load(PluginPath());
    EXPECT_NE(Own(Factory().CreateNetworkInterfaceInfo("lo", error)), nullptr);
    Own(Factory().CreateTraceController())->IsSessionDaemonAlive();
    const auto thread = Own(Factory().CreateThread(&Run, nullptr));
    thread->StartThread();
    thread->Cancel();
    int exitCode = -1;
    Own(Factory().CreateProcess())->StartBlocking("", "/bin/true", "", exitCode);
    EXPECT_EQ(exitCode, 0);
}

// An object that all threads share. It is replaced now and then; its last user deletes it.
template <typename Object>
std::function<void(Random& random)> Shared() {
    return [object = std::make_shared<std::shared_ptr<Object>>(std::make_shared<Object>())](Random& random) {
        if (Below(40, random) == 0) {
            std::atomic_store(object.get(), std::make_shared<Object>());
        }
        std::atomic_load(object.get())->Use(random);
    };
}

// What processes share that may be killed at any moment.
struct Common {
    void Use(Random& random) {
        const auto semaphore = Own(Factory().CreateSemaphore(name));
        ExpectDoneOr("VeException: TryLock: Mutex could not be trylocked: Owner died", [&] {
            if (mutex.TryLock()) {
                // A process that was killed in here is still noted.
                EXPECT_NE(holder.exchange(gettid()), gettid());
                semaphore->Wait(1);
                holder = 0;
                mutex.Unlock();
            }
        });
        semaphore->Post();
        const auto queue = Own(Factory().CreateMessageQueue(name, false));
        char message[16] = "to a peer";
        ExpectDoneOr("VeException: Could not send message. Error Resource temporarily unavailable.",
                     [&] { queue->Send(message, Below(sizeof message, random), 0, 0); });
        unsigned int priority = 0;
        EXPECT_GE(queue->Receive(message, sizeof message, priority, 0), 0);
    }

    const BasicString name = UniqueName("stress");
    IpcMutexService mutex;
    std::atomic<int> holder{0};
};

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
    // Starts, kills and replaces a process that uses what is common.
    Child keeper([&, random = Random(seed)]() mutable {
        while (steady_clock::now() < end && !HasFailure()) {
            Child peer([&] {
                // Without anybody to kill it, it ends by itself.
                while (!HasFailure() && steady_clock::now() < end + std::chrono::minutes(1)) {
                    common->Use(random);
                }
                return EXIT_FAILURE;
            });
            std::this_thread::sleep_for(milliseconds(Below(20, random)));
            EXPECT_EQ(peer.Kill(), 128 + SIGKILL);
        }
        return HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS;
    });

    const std::function<void(Random & random)> works[] = {
        Shared<Guarded<MutexService, ConditionVariableService, MutexService::ProcessPrivate>>(),
        Shared<Guarded<IpcMutexService, IpcCondVarService>>(),
        Shared<RWLocks>(),
        Shared<Semaphores>(),
        Shared<Timers>(),
        &UseOthers,
        [&](Random& random) { common->Use(random); },
    };
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < Setting("KEL_STRESS_THREADS", 8); ++i) {
        threads.emplace_back([&, random = Random(seed + i)]() mutable {
            while (steady_clock::now() < end && !HasFailure()) {
                EXPECT_TRUE(ComesTo([&] { works[Below(std::size(works), random)](random); }, "done"));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(keeper.Wait(), EXIT_SUCCESS);
    queue->Unlink();
    EXPECT_EQ(dlopen(PluginPath().c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

}  // namespace
