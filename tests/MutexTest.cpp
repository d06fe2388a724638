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
        ExpectExclusion(*std::unique_ptr<IMutexService>(factory->CreateMutex(isRecursive)), isRecursive);
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

}  // namespace
