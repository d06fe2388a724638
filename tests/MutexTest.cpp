#include "support/Test.h"

namespace {

using MutexTest = FactoryTest;

TEST_F(MutexTest, IsMadeForItsUsersAndDestroyedOnceIfItWasMade) {
    const auto setting = [](const char* function, const std::function<void()>& make) {
        return static_cast<int>(CallsOf(function, make).at(0)[1]);
    };
    const auto make = [&] { Own(factory->CreateMutex(false)); };
    const auto makeShared = [] { MutexService().Init(false, MutexService::InterProcess); };
    const auto makeIpc = [] { IpcMutexService().Init(true); };
    EXPECT_EQ(setting("pthread_mutexattr_setprotocol", make), PTHREAD_PRIO_INHERIT);
    EXPECT_EQ(setting("pthread_mutexattr_setpshared", make), PTHREAD_PROCESS_PRIVATE);
    EXPECT_EQ(setting("pthread_mutexattr_setpshared", makeShared), PTHREAD_PROCESS_SHARED);
    EXPECT_EQ(setting("pthread_mutexattr_setpshared", makeIpc), PTHREAD_PROCESS_SHARED);
    EXPECT_EQ(setting("pthread_mutexattr_settype", makeIpc), PTHREAD_MUTEX_RECURSIVE);
    EXPECT_TRUE(CallsOf("pthread_mutexattr_setrobust", make).empty());

    const auto makeAndDestroy = [] {
        const MutexService notMade;
        MutexService made;
        made.Init(false, MutexService::ProcessPrivate);
        made.Destroy();
    };
    EXPECT_EQ(CallsOf("pthread_mutex_destroy", makeAndDestroy).size(), 1U);
}

TEST_F(MutexTest, SharedOneThatIsHeldIsNotDestroyed) {
    for (const bool isRecursive : {false, true}) {
        IpcMutexService mutex;
        mutex.Init(isRecursive);
        const auto refuse = [&] {
            EXPECT_TRUE(ComesTo([&] { mutex.Destroy(); },
                                "VeException: Destroy: Mutex could not be destroyed: Device or resource busy"));
        };
        mutex.Lock();
        refuse();
        std::thread(refuse).join();
        mutex.Unlock();
        EXPECT_TRUE(mutex.TryLock());
        mutex.Unlock();
        // User-mode emulation does not tell of a holder's end.
        if (!IsEmulated()) {
            std::thread([&] { mutex.Lock(); }).join();
        }
        mutex.Destroy();
    }
}

TEST_F(MutexTest, FailuresAreReported) {
    const auto create = [&] { return factory->CreateMutex(false); };
    const auto mutex = Own(create());
    const auto held = Own(create());
    held->Lock();
    IpcMutexService ipcMutex;
    const auto deleteLocked = [&] { Own(create())->Lock(); };
    const std::string invalid = ": Invalid argument";
    const std::string init = "VeException: Init: ";
    const std::string trylock = "VeException: TryLock: Mutex could not be trylocked: ";
    const std::string timedLock = "VeException: TimedLock: Mutex could not be timelocked: ";
    // Of TryLock and TimedLock, the text is that of errno.
    ExpectFailures({
        {"pthread_mutexattr_init", create, init + "Could not initialize mutex attribute" + invalid},
        {"pthread_mutexattr_settype", create, init + "Could not set the mutex type" + invalid},
        {"pthread_mutexattr_setpshared", create, init + "Could not set shared-flag on mutex attribute" + invalid},
        {"pthread_mutexattr_setprotocol", create,
         init + "Could not update the protocol information for the mutex" + invalid},
        {"pthread_mutex_init", create, init + "Mutex could not be initiated" + invalid},
        {"pthread_mutexattr_setrobust", [&] { ipcMutex.Init(false); }, init + "Mutex could not be initiated" + invalid},
        {"pthread_mutex_lock", [&] { mutex->Lock(); }, "VeException: Lock: Mutex could not be locked" + invalid},
        {"pthread_mutex_unlock", [&] { held->Unlock(); }, "VeException: Unlock: Mutex could not be unlocked" + invalid},
        {"pthread_mutex_trylock", [&] { mutex->TryLock(); }, trylock + "Permission denied"},
        {"pthread_mutex_trylock", [&] { mutex->TimedLock(1); }, timedLock + "Permission denied"},
        {"pthread_mutex_timedlock", [&] { held->TimedLock(1); }, timedLock + "Permission denied"},
        {"clock_gettime", [&] { held->TimedLock(1); }, "VeException: Could not compute timeout."},
        {"pthread_mutexattr_gettype", [&] { mutex->IsRecursive(); },
         "VeException: IsRecursive: Could not query mutex type" + invalid},
        // The attribute is destroyed first: nobody has asked yet whether the mutex is held.
        {"pthread_mutexattr_destroy", deleteLocked,
         "ends the process: VeException: Destroy: Could not destroy mutex attribute" + invalid},
        {"pthread_mutex_destroy", create,
         "ends the process: VeException: Destroy: Mutex could not be destroyed" + invalid},
    });
    held->Unlock();
}

}  // namespace
