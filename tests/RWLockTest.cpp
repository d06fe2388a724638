#include "support/Test.h"

namespace {

using RWLockTest = FactoryTest;

TEST_F(RWLockTest, HoldsManyReadersOrOneWriterWhoIsToldWhenItAcquiresAgain) {
    RWLockService lock;
    lock.AcquireReadLock();
    std::thread([&] {
        EXPECT_TRUE(lock.TryAcquireReadLock());
        EXPECT_FALSE(lock.TryAcquireWriteLock());
        EXPECT_FALSE(lock.TimedAcquireWriteLock(0));
        EXPECT_TRUE(Takes<system_clock>(milliseconds(30), [&] { EXPECT_FALSE(lock.TimedAcquireWriteLock(30)); }));
        lock.ReleaseReadLock();
    }).join();
    // Either release does for either mode.
    lock.ReleaseWriteLock();
    EXPECT_TRUE(lock.TimedAcquireReadLock(0));
    EXPECT_TRUE(lock.TryAcquireReadLock());
    lock.Unlock();
    lock.Unlock();

    EXPECT_TRUE(lock.TryAcquireWriteLock());
    std::thread([&] {
        EXPECT_FALSE(lock.TryAcquireReadLock());
        EXPECT_FALSE(lock.TimedAcquireReadLock(1));
    }).join();
    EXPECT_TRUE(Throws([&] { lock.AcquireWriteLock(); },
                       "Could not acquire write-lock. Error Resource deadlock avoided (35)."));
    EXPECT_TRUE(
        Throws([&] { lock.AcquireReadLock(); }, "Could not acquire read-lock. Error Resource deadlock avoided (35)."));
    EXPECT_THROW(lock.TimedAcquireWriteLock(0), VeException);
    EXPECT_FALSE(lock.TryAcquireReadLock());
    lock.ReleaseReadLock();
    EXPECT_TRUE(lock.TimedAcquireWriteLock(0));
    std::thread waiting([&] {
        lock.AcquireWriteLock();
        lock.ReleaseWriteLock();
    });
    lock.ReleaseWriteLock();
    waiting.join();
}

}  // namespace
