#include "support/Test.h"

namespace {

using MutexTest = FactoryTest;

// Both kinds of mutex behave alike.
template <typename Mutex>
void ExpectExclusion(Mutex& mutex, bool isRecursive) {
    EXPECT_EQ(mutex.IsRecursive(), isRecursive);
    mutex.Lock();
    EXPECT_EQ(mutex.TryLock(), isRecursive);
    EXPECT_EQ(mutex.TimedLock(0), isRecursive ? 0 : -1);
    std::thread waiting([&] {
        EXPECT_EQ(mutex.TimedLock(100000), 0);
        mutex.Unlock();
    });
    for (int i = isRecursive ? 3 : 1; i > 0; --i) {
        std::thread([&] {
            EXPECT_FALSE(mutex.TryLock());
            EXPECT_EQ(mutex.TimedLock(0), -1);
            EXPECT_TRUE(Takes<system_clock>(milliseconds(30), [&] { EXPECT_EQ(mutex.TimedLock(30), -1); }));
        }).join();
        mutex.Unlock();
    }
    waiting.join();
    EXPECT_EQ(mutex.TimedLock(0), 0);
    mutex.Unlock();
}

TEST_F(MutexTest, ExcludesOtherThreadsUntilUnlockedAsOftenAsLocked) {
    for (const bool isRecursive : {false, true}) {
        ExpectExclusion(*Own(factory->CreateMutex(isRecursive)), isRecursive);
        IpcMutexService ipcMutex;
        ipcMutex.Init(isRecursive);
        ExpectExclusion(ipcMutex, isRecursive);
        ipcMutex.Destroy();
    }
}

TEST_F(MutexTest, IsSharedWithOtherProcessesIfAskedFor) {
    for (const auto sharing : {MutexService::ProcessPrivate, MutexService::InterProcess}) {
        MutexService mutex;
        mutex.Init(false, sharing);
        // What the C library has noted of it.
        EXPECT_EQ((mutex.GetPosixMutex().GetNativeHandle()->__data.__kind & 128) != 0,
                  sharing == MutexService::InterProcess);
    }
}

TEST_F(MutexTest, FailuresAreReported) {
    const auto create = [&] { return factory->CreateMutex(false); };
    const auto mutex = Own(create());
    const auto lock = [&] { mutex->Lock(); };
    const auto held = Own(create());
    held->Lock();
    IpcMutexService ipcMutex;
    // Of Try and Timed, the text is that of errno.
    ExpectFailures({
        {"pthread_mutexattr_init", create, "VeException: Init: Could not initialize mutex attribute: Invalid argument"},
        {"pthread_mutexattr_settype", create, "VeException: Init: Could not set the mutex type: Invalid argument"},
        {"pthread_mutexattr_setpshared", create,
         "VeException: Init: Could not set shared-flag on mutex attribute: Invalid argument"},
        {"pthread_mutexattr_setprotocol", create,
         "VeException: Init: Could not update the protocol information for the mutex: Invalid argument"},
        {"pthread_mutex_init", create, "VeException: Init: Mutex could not be initiated: Invalid argument"},
        {"pthread_mutexattr_setrobust", [&] { ipcMutex.Init(false); },
         "VeException: Init: Mutex could not be initiated: Invalid argument"},
        {"pthread_mutex_lock", lock, "VeException: Lock: Mutex could not be locked: Invalid argument"},
        {"pthread_mutex_unlock", [&] { held->Unlock(); },
         "VeException: Unlock: Mutex could not be unlocked: Invalid argument"},
        {"pthread_mutex_trylock", [&] { mutex->TryLock(); },
         "VeException: TryLock: Mutex could not be trylocked: Permission denied"},
        {"pthread_mutex_trylock", [&] { mutex->TimedLock(1); },
         "VeException: TimedLock: Mutex could not be timelocked: Permission denied"},
        {"pthread_mutex_timedlock", [&] { held->TimedLock(1); },
         "VeException: TimedLock: Mutex could not be timelocked: Permission denied"},
        {"clock_gettime", [&] { held->TimedLock(1); }, "VeException: Could not compute timeout."},
        {"pthread_mutexattr_gettype", [&] { mutex->IsRecursive(); },
         "VeException: IsRecursive: Could not query mutex type: Invalid argument"},
        {"pthread_mutexattr_destroy", create,
         "ends the process: VeException: Destroy: Could not destroy mutex attribute: Invalid argument"},
        {"pthread_mutex_destroy", create,
         "ends the process: VeException: Destroy: Mutex could not be destroyed: Invalid argument"},
    });
    held->Unlock();
}

}  // namespace
