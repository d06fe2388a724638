#include "support/Test.h"

namespace {

using RWLockTest = FactoryTest;

TEST_F(RWLockTest, FailuresAreReported) {
    RWLockService lock;
    lock.AcquireWriteLock();
    RWLockService ended;
    const std::string invalid = " Error Invalid argument (22).";
    const std::string read = "VeException: Could not acquire read-lock." + invalid;
    const std::string write = "VeException: Could not acquire write-lock." + invalid;
    const std::string timed = ": Mutex could not be timelocked: Permission denied";
    const std::string timedRead = "VeException: TimedAcquireReadLock" + timed;
    const std::string timedWrite = "VeException: TimedAcquireWriteLock" + timed;
    // Of the timed operations, the text is that of errno.
    ExpectFailures({
        {"pthread_rwlock_init", [&] { return factory->CreateRWLock(); },
         "VeException: Could not initialize rw-lock." + invalid},
        {"pthread_rwlock_rdlock", [&] { lock.AcquireReadLock(); }, read},
        {"pthread_rwlock_tryrdlock", [&] { lock.TryAcquireReadLock(); }, read},
        {"pthread_rwlock_wrlock", [&] { lock.AcquireWriteLock(); }, write},
        {"pthread_rwlock_trywrlock", [&] { lock.TryAcquireWriteLock(); }, write},
        {"pthread_rwlock_tryrdlock", [&] { lock.TimedAcquireReadLock(1); }, timedRead},
        {"pthread_rwlock_timedrdlock", [&] { lock.TimedAcquireReadLock(1); }, timedRead},
        {"pthread_rwlock_trywrlock", [&] { lock.TimedAcquireWriteLock(1); }, timedWrite},
        {"pthread_rwlock_timedwrlock", [&] { lock.TimedAcquireWriteLock(1); }, timedWrite},
        {"pthread_rwlock_unlock", [&] { lock.Unlock(); }, "VeException: Could not unlock read-write-lock." + invalid},
        {"pthread_rwlock_destroy", [&] { ended.Destroy(); }, "VeException: Could not destroy rw-lock." + invalid},
        {"pthread_rwlock_destroy", [&] { const RWLockService deleted; },
         "ends the process: VeException: Could not destroy rw-lock." + invalid},
    });
    lock.Unlock();
    EXPECT_EQ(CallsOf("pthread_rwlock_destroy", [&] { ended.Destroy(); }).size(), 1U);
    EXPECT_TRUE(CallsOf("pthread_rwlock_destroy", [&] { ended.Destroy(); }).empty());
}

}  // namespace
