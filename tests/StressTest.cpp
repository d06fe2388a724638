// Threads that make, use, share and delete services of every kind at random, beside processes that use some of them,
// too, and are killed at any moment. Each operation does what it promises, and nothing is left behind.

#include "support/Test.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <iostream>
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

// What the names of this run begin with, also in its children.
const std::string& RunName() {
    static const std::string name = UniqueName("stress");
    return name;
}

BasicString NewName() {
    static std::atomic<unsigned int> count{0};
    return RunName() + "-" + std::to_string(++count);
}

void ExpectOneOf(const Operation& operation, const std::vector<std::string>& outcomes) {
    const std::string outcome = operation.Outcome();
    EXPECT_NE(std::find(outcomes.begin(), outcomes.end(), outcome), outcomes.end()) << outcome;
}

// While it lives, nobody else may be inside.
class Inside {
public:
    explicit Inside(std::atomic<int>& newCount) : count(newCount) {
        EXPECT_EQ(++count, 1);
        // Others come, if they can.
        std::this_thread::yield();
    }
    ~Inside() { --count; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    std::atomic<int>& count;
};

// A store that is guarded by a mutex and waited for with a condition.
template <typename Mutex, typename Condition>
struct Store {
    void Use(Random& random) {
        if (Below(2, random) == 0) {
            mutex.Lock();
        } else if (mutex.TimedLock(Below(3, random)) != 0) {
            return;
        }
        { const Inside alone(inside); }
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

    Mutex& mutex;
    Condition& condition;
    std::atomic<int> inside{0};
    unsigned int items = 0;
};

struct Mutexes {
    Mutexes() { ipcMutex.Init(false); }

    void Use(Random& random) {
        store.Use(random);
        ipcStore.Use(random);
    }

    std::unique_ptr<IMutexService> mutex = Own(Factory().CreateMutex(false));
    std::unique_ptr<ICondVariableService> condition = Own(Factory().CreateConditionVariable());
    Store<IMutexService, ICondVariableService> store{*mutex, *condition};
    IpcMutexService ipcMutex;
    IpcCondVarService ipcCondition;
    Store<IpcMutexService, IpcCondVarService> ipcStore{ipcMutex, ipcCondition};
};

struct RWLocks {
    void Use(Random& random) {
        const unsigned int timeoutMs = Below(3, random);
        if (Below(3, random) == 0 ? lock->TimedAcquireWriteLock(timeoutMs) : lock->TryAcquireWriteLock()) {
            {
                const Inside alone(writers);
                EXPECT_EQ(readers, 0);
            }
            lock->ReleaseWriteLock();
        }
        if (Below(3, random) == 0 ? lock->TimedAcquireReadLock(timeoutMs) : lock->TryAcquireReadLock()) {
            ++readers;
            EXPECT_EQ(writers, 0);
            --readers;
            lock->ReleaseReadLock();
        }
    }

    std::unique_ptr<IRWLockService> lock = Own(Factory().CreateRWLock());
    std::atomic<int> readers{0};
    std::atomic<int> writers{0};
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
        if (Below(2, random) == 0) {
            ExpectOneOf([&] { timer->Start(); }, {"done", "VeException: Start: Timer was started yet!"});
        } else {
            timer->Stop();
        }
    }
    static void Tick(void* inside) { const Inside alone(*static_cast<std::atomic<int>*>(inside)); }

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
struct Others {
    void Use(Random& random) {
        const BasicString name = NewName();
        BasicString error;
        const auto file = Own(Factory().CreateFile("/tmp" + name, IFileService::FileMode::CreateNew,
                                                   IFileService::FileAccess::Write, false));
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
};

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
    IpcMutexService mutex;
    std::atomic<int> holder{0};
};

void UseCommon(Common& common, Random& random) {
    bool isHeld = false;
    ExpectOneOf([&] { isHeld = common.mutex.TryLock(); },
                {"done", "VeException: TryLock: Mutex could not be trylocked: Owner died"});
    const auto semaphore = Own(Factory().CreateSemaphore(RunName()));
    if (isHeld) {
        // A process that was killed in here is still noted.
        EXPECT_NE(common.holder.exchange(gettid()), gettid());
        semaphore->Wait(1);
        common.holder = 0;
        common.mutex.Unlock();
    }
    semaphore->Post();
    semaphore->TryWait();
    const auto queue = Own(Factory().CreateMessageQueue(RunName(), false));
    char message[16] = "to a peer";
    ExpectOneOf([&] { queue->Send(message, Below(sizeof message, random), 0, 0); },
                {"done", "VeException: Could not send message. Error Resource temporarily unavailable."});
    unsigned int priority = 0;
    EXPECT_GE(queue->Receive(message, sizeof message, priority, 0), 0);
}

// Starts, kills and replaces a process that uses what is common, until the other end of `stop` is closed.
int KillPeers(Common& common, int stop, unsigned int seed) {
    Random random(seed);
    pollfd end{stop, POLLIN, 0};
    while (poll(&end, 1, 0) == 0) {
        Child peer([&] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            while (!testing::Test::HasFailure()) {
                UseCommon(common, random);
            }
            return EXIT_FAILURE;
        });
        poll(&end, 1, static_cast<int>(Below(20, random)));
        if (peer.Kill() != 128 + SIGKILL) {
            return EXIT_FAILURE;
        }
        random.discard(1);
    }
    return EXIT_SUCCESS;
}

std::string ResidentMemory() {
    std::ifstream file("/proc/self/status");
    std::string line;
    while (std::getline(file, line) && line.find("VmRSS:") != 0) {
    }
    return line;
}

using StressTest = FactoryTest;

TEST_F(StressTest, EverythingAtOnceBreaksNothingAndLeavesNothing) {
    const unsigned int seed = Setting("KEL_STRESS_SEED", std::random_device()());
    const std::chrono::seconds duration(Setting("KEL_STRESS_SECONDS", 2));
    std::cout << "seed " << seed << "\n" << ResidentMemory() << std::endl;

    const auto semaphore = Own(factory->CreateSemaphore(RunName(), 0));
    const auto queue = Own(factory->CreateMessageQueue(RunName(), IMessageQueueService::OpenMode::CreateNew,
                                                       IMessageQueueService::Access::ReadWrite, false, 4, 16));
    SharedObject<Common> common;
    common->mutex.Init(false);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Child keeper([&] {
        close(ends[1]);
        return KillPeers(*common, ends[0], seed);
    });

    std::atomic<unsigned long> rounds{0};
    {
        const std::vector<std::pair<const char*, std::function<void(Random & random)>>> works{
            {"mutexes, condition variables", Shared<Mutexes>()},
            {"read-write lock", Shared<RWLocks>()},
            {"semaphore", Shared<Semaphores>()},
            {"timer", Shared<Timers>()},
            {"thread", Shared<Threads>()},
            {"others", Shared<Others>()},
            {"objects of killed processes", [&](Random& random) { UseCommon(*common, random); }},
        };
        std::vector<std::thread> threads;
        const auto end = steady_clock::now() + duration;
        for (unsigned int i = 0; i < Setting("KEL_STRESS_THREADS", 8); ++i) {
            threads.emplace_back([&, random = Random(seed + i)]() mutable {
                for (; steady_clock::now() < end && !HasFailure(); ++rounds) {
                    const auto& [name, use] = works[Below(static_cast<unsigned int>(works.size()), random)];
                    EXPECT_EQ(Operation([&, use = use] { use(random); }).Outcome(), "done") << name;
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    std::cout << rounds << " rounds\n" << ResidentMemory() << std::endl;
    close(ends[1]);
    EXPECT_EQ(keeper.Wait(), EXIT_SUCCESS);
    close(ends[0]);
    queue->Unlink();
    EXPECT_EQ(dlopen(PluginPath().c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

}  // namespace
