#include "support/Test.h"

namespace {

class RWLockTest : public FactoryTest {
protected:
    RWLockService lock;
};

TEST_F(RWLockTest, IsHeldByManyReadersOrOneWriter) {
    const std::pair<std::string, std::function<void()>> table[] = {
        {"shared", [&] { lock.AcquireReadLock(); }},
        {"shared", [&] { EXPECT_TRUE(lock.TryAcquireReadLock()); }},
        {"shared", [&] { EXPECT_TRUE(lock.TimedAcquireReadLock(0)); }},
        {"exclusive", [&] { lock.AcquireWriteLock(); }},
        {"exclusive", [&] { EXPECT_TRUE(lock.TryAcquireWriteLock()); }},
        {"exclusive", [&] { EXPECT_TRUE(lock.TimedAcquireWriteLock(0)); }},
    };
    for (const auto& [mode, acquire] : table) {
        acquire();
        std::thread([&, isShared = mode == "shared"] {
            EXPECT_FALSE(lock.TryAcquireWriteLock());
            EXPECT_FALSE(lock.TimedAcquireWriteLock(1));
            EXPECT_EQ(lock.TimedAcquireReadLock(1), isShared);
            EXPECT_EQ(lock.TryAcquireReadLock(), isShared);
            if (isShared) {
                lock.ReleaseReadLock();
                lock.ReleaseReadLock();
            }
        }).join();
        lock.ReleaseWriteLock();
    }
}

TEST_F(RWLockTest, IsDestroyedOnce) {
    EXPECT_EQ(CallsOf("pthread_rwlock_destroy", [] { RWLockService().Destroy(); }).size(), 1U);
}

TEST_F(RWLockTest, FailuresAreReported) {
    RWLockService held;
    held.AcquireWriteLock();
    const std::string read = "VeException: Could not acquire read-lock. Error Invalid argument (22).";
    const std::string write = "VeException: Could not acquire write-lock. Error Invalid argument (22).";
    const std::string timedRead = "VeException: TimedAcquireReadLock: Mutex could not be timelocked: Permission denied";
    const std::string timedWrite =
        "VeException: TimedAcquireWriteLock: Mutex could not be timelocked: Permission denied";
    // Of the timed operations, the text is that of errno.
    ExpectFailures({
        {"pthread_rwlock_init", [&] { return factory->CreateRWLock(); },
         "VeException: Could not initialize rw-lock. Error Invalid argument (22)."},
        {"pthread_rwlock_rdlock", [&] { lock.AcquireReadLock(); }, read},
        {"pthread_rwlock_tryrdlock", [&] { lock.TryAcquireReadLock(); }, read},
        {"pthread_rwlock_wrlock", [&] { lock.AcquireWriteLock(); }, write},
        {"pthread_rwlock_trywrlock", [&] { lock.TryAcquireWriteLock(); }, write},
        {"pthread_rwlock_tryrdlock", [&] { lock.TimedAcquireReadLock(1); }, timedRead},
        {"pthread_rwlock_timedrdlock", [&] { held.TimedAcquireReadLock(1); }, timedRead},
        {"pthread_rwlock_trywrlock", [&] { lock.TimedAcquireWriteLock(1); }, timedWrite},
        {"pthread_rwlock_timedwrlock", [&] { held.TimedAcquireWriteLock(1); }, timedWrite},
        {"pthread_rwlock_unlock", [&] { held.Unlock(); },
         "VeException: Could not unlock read-write-lock. Error Invalid argument (22)."},
        {"pthread_rwlock_destroy", [&] { lock.Destroy(); },
         "VeException: Could not destroy rw-lock. Error Invalid argument (22)."},
        {"pthread_rwlock_destroy", [&] { const RWLockService ended; },
         "ends the process: VeException: Could not destroy rw-lock. Error Invalid argument (22)."},
    });
    held.Unlock();
}

}  // namespace
