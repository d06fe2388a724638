#include "support/SharedObject.h"
#include "support/Test.h"
#include "support/ThreadStat.h"

#include <future>
#include <type_traits>

namespace {

// An inherited priority shows here: 20 is that of a normal thread, -1 - n that of real-time priority n.
int KernelPriority() { return std::stoi(ThreadStat(gettid(), 18)); }

// Both mutexes behave alike; `T` is one of them.
template <typename T>
void Init(T& mutex, bool recursive) {
    if constexpr (std::is_same_v<T, MutexService>) {
        mutex.Init(recursive, MutexService::ProcessPrivate);
    } else {
        mutex.Init(recursive);
    }
}

template <typename T>
class MutexTest : public FactoryTest {};

using Mutexes = testing::Types<MutexService, IpcMutexService>;

struct Names {
    template <typename T>
    static std::string GetName(int) {
        return std::is_same_v<T, MutexService> ? "MutexService" : "IpcMutexService";
    }
};

TYPED_TEST_SUITE(MutexTest, Mutexes, Names);

TYPED_TEST(MutexTest, RecursiveMutexIsFreeAfterAsManyUnlocks) {
    TypeParam mutex;
    Init(mutex, true);
    EXPECT_TRUE(mutex.IsRecursive());
    const auto isFree = [&] {
        return std::async(std::launch::async,
                          [&] {
                              const bool acquired = mutex.TryLock();
                              if (acquired) {
                                  mutex.Unlock();
                              }
                              return acquired;
                          })
            .get();
    };
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock());
    EXPECT_EQ(mutex.TimedLock(0), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(isFree());
        mutex.Unlock();
    }
    EXPECT_TRUE(isFree());
    if constexpr (std::is_same_v<TypeParam, IpcMutexService>) {
        mutex.Destroy();
    }
}

TYPED_TEST(MutexTest, HeldMutexIsNotAcquired) {
    TypeParam mutex;
    Init(mutex, false);
    EXPECT_FALSE(mutex.IsRecursive());
    mutex.Lock();
    EXPECT_FALSE(mutex.TryLock());
    std::thread([&] {
        EXPECT_FALSE(mutex.TryLock());
        EXPECT_EQ(mutex.TimedLock(0), -1);
        const auto start = std::chrono::system_clock::now();
        EXPECT_EQ(mutex.TimedLock(30), -1);
        EXPECT_GE(std::chrono::system_clock::now() - start, std::chrono::milliseconds(30));
    }).join();
    std::thread waiting([&] {
        EXPECT_EQ(mutex.TimedLock(100000), 0);
        mutex.Unlock();
    });
    mutex.Unlock();
    waiting.join();
    EXPECT_EQ(mutex.TimedLock(0), 0);
    mutex.Unlock();
    if constexpr (std::is_same_v<TypeParam, IpcMutexService>) {
        mutex.Destroy();
    }
}

TYPED_TEST(MutexTest, FailedCallsAreReported) {
    TypeParam mutex;
    TypeParam other;
    const auto init = [&] { Init(mutex, true); };
    ExpectFailures(
        Told::ByCode,
        {{"pthread_mutexattr_init", init, "Init: Could not initialize mutex attribute: {}"},
         {"pthread_mutexattr_settype", init, "Init: Could not set the mutex type: {}"},
         {"pthread_mutexattr_setpshared", init, "Init: Could not set shared-flag on mutex attribute: {}"},
         {"pthread_mutexattr_setprotocol", init, "Init: Could not update the protocol information for the mutex: {}"},
         {"pthread_mutex_init", init, "Init: Mutex could not be initiated: {}"}});
    init();
    Init(other, false);
    ExpectFailures(
        Told::ByErrnoBesideCode,
        {{"pthread_mutex_trylock", [&] { mutex.TryLock(); }, "TryLock: Mutex could not be trylocked: {}"},
         {"pthread_mutex_timedlock", [&] { mutex.TimedLock(1); }, "TimedLock: Mutex could not be timelocked: {}"}});
    ExpectFailures(
        Told::ByCode,
        {{"pthread_mutex_lock", [&] { mutex.Lock(); }, "Lock: Mutex could not be locked: {}"},
         {"clock_gettime", [&] { mutex.TimedLock(1); }, "Could not compute timeout."},
         {"pthread_mutex_unlock", [&] { mutex.Unlock(); }, "Unlock: Mutex could not be unlocked: {}"},
         {"pthread_mutexattr_gettype", [&] { (void)mutex.IsRecursive(); },
          "IsRecursive: Could not query mutex type: {}"},
         {"pthread_mutexattr_destroy", [&] { mutex.Destroy(); }, "Destroy: Could not destroy mutex attribute: {}"},
         {"pthread_mutex_destroy", [&] { other.Destroy(); }, "Destroy: Mutex could not be destroyed: {}"}});
    // The attribute goes first: the mutex is still good.
    mutex.Lock();
    mutex.Unlock();
}

using MutexServiceTest = FactoryTest;

TEST_F(MutexServiceTest, CreationThatFailsLeavesNothingBehind) {
    for (const char* const function :
         {"pthread_mutexattr_init", "pthread_mutexattr_settype", "pthread_mutexattr_setpshared",
          "pthread_mutexattr_setprotocol", "pthread_mutex_init"}) {
        const FailingCall call(function, ENOMEM, EPERM);
        EXPECT_THROW(factory->CreateMutex(false), VeException) << function;
        EXPECT_EQ(this->LiveObjects(), 0U);
        EXPECT_TRUE(factory->GetRegisteredServiceObjects().empty());
    }
}

// What the C library has noted of a mutex.
bool IsProcessShared(MutexService& mutex) { return (mutex.GetNativeHandle()->__data.__kind & 128) != 0; }

TEST_F(MutexServiceTest, IsMadeAsAskedFor) {
    for (const bool recursive : {false, true}) {
        const std::unique_ptr<IMutexService> made(factory->CreateMutex(recursive));
        EXPECT_EQ(made->IsRecursive(), recursive);
        EXPECT_FALSE(IsProcessShared(dynamic_cast<MutexService&>(*made)));
    }
    MutexService shared;
    shared.Init(false, MutexService::InterProcess);
    EXPECT_TRUE(IsProcessShared(shared));
}

TEST_F(MutexServiceTest, IsDestroyedUntilThatIsDoneAndNotAgain) {
    MutexService mutex;
    mutex.Init(false, MutexService::ProcessPrivate);
    const Failure failure{"pthread_mutex_destroy", [&] { mutex.Destroy(); },
                          "Destroy: Mutex could not be destroyed: {}"};
    ExpectFailures(Told::ByCode, {failure, failure});
    mutex.Destroy();
    Child child([&]() -> int {
        const FailingCall call("pthread_mutexattr_destroy", [] { _exit(1); });
        mutex.Destroy();
        _exit(0);
    });
    EXPECT_EQ(child.Wait(), 0);
}

// As for a mutex that is held.
TEST_F(MutexServiceTest, DestructionThatFailsInTheDestructorEndsTheProcess) {
    Child child([this] {
        const FailingCall call("pthread_mutex_destroy", EBUSY, EPERM);
        delete factory->CreateMutex(false);
        return 0;
    });
    EXPECT_EQ(child.Wait(), 128 + SIGABRT);
}

TEST_F(MutexServiceTest, HolderInheritsThePriorityOfAWaitingThread) {
    const std::unique_ptr<IMutexService> mutex(factory->CreateMutex(true));
    const int ownPriority = KernelPriority();
    mutex->Lock();
    const std::unique_ptr<IThreadService> waiting(factory->CreateThread(
        [](void* argument) -> void* {
            const MutexGuard guard(*static_cast<IMutexService*>(argument));
            return nullptr;
        },
        mutex.get(), "", 20, 0, 0));
    try {
        waiting->StartThread();
    } catch (const VeException& exception) {
        mutex->Unlock();
        GTEST_SKIP() << needsRealTime << ": " << exception.what();
    }
    // Without inheritance this goes on until the runner's time limit.
    while (KernelPriority() != -21) {
        std::this_thread::yield();
    }
    mutex->Unlock();
    EXPECT_EQ(KernelPriority(), ownPriority);
    waiting->Join();
}

TEST(IpcMutexTest, ExcludesOtherProcesses) {
    struct Shared {
        IpcMutexService mutex;
        int counter;
    };
    const SharedObject<Shared> shared;
    shared->mutex.Init(false);
    shared->mutex.Lock();
    const auto count = [&] {
        for (int i = 0; i < 20000; ++i) {
            shared->mutex.Lock();
            ++shared->counter;
            shared->mutex.Unlock();
        }
        return 0;
    };
    Child looker([&] { return !shared->mutex.TryLock() && shared->mutex.TimedLock(0) == -1 ? 0 : 1; });
    EXPECT_EQ(looker.Wait(), 0);
    Child first(count);
    Child second(count);
    shared->mutex.Unlock();
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(second.Wait(), 0);
    EXPECT_EQ(shared->counter, 40000);
    shared->mutex.Destroy();
}

}  // namespace
