#include "support/Test.h"

namespace {

using RWLockTest = FactoryTest;

TEST_F(RWLockTest, HoldsManyReadersOrOneWriter) {
    RWLockService lock;
    lock.AcquireReadLock();
    std::thread([&] {
        EXPECT_TRUE(lock.TryAcquireReadLock());
        EXPECT_FALSE(lock.TryAcquireWriteLock());
        EXPECT_FALSE(lock.TimedAcquireWriteLock(0));
        const auto start = std::chrono::system_clock::now();
        EXPECT_FALSE(lock.TimedAcquireWriteLock(30));
        EXPECT_GE(std::chrono::system_clock::now() - start, std::chrono::milliseconds(30));
        lock.ReleaseReadLock();
    }).join();
    // Either release does for either mode.
    lock.ReleaseWriteLock();
    EXPECT_TRUE(lock.TimedAcquireReadLock(0));
    lock.Unlock();

    EXPECT_TRUE(lock.TryAcquireWriteLock());
    std::thread([&] {
        EXPECT_FALSE(lock.TryAcquireReadLock());
        EXPECT_FALSE(lock.TimedAcquireReadLock(1));
    }).join();
    lock.ReleaseReadLock();
    EXPECT_TRUE(lock.TimedAcquireWriteLock(0));
    std::thread waiting([&] {
        lock.AcquireWriteLock();
        lock.ReleaseWriteLock();
    });
    lock.ReleaseWriteLock();
    waiting.join();
}

TEST_F(RWLockTest, WriterThatAcquiresAgainIsTold) {
    RWLockService lock;
    lock.AcquireWriteLock();
    EXPECT_TRUE(Throws<VeException>([&] { lock.AcquireWriteLock(); },
                                    "Could not acquire write-lock. Error Resource deadlock avoided (35)."));
    EXPECT_TRUE(Throws<VeException>([&] { lock.AcquireReadLock(); },
                                    "Could not acquire read-lock. Error Resource deadlock avoided (35)."));
    EXPECT_THROW(lock.TimedAcquireWriteLock(0), VeException);
    EXPECT_FALSE(lock.TryAcquireReadLock());
    lock.ReleaseWriteLock();
}

TEST_F(RWLockTest, FailedCallsAreReported) {
    RWLockService lock;
    const std::string read = "Could not acquire read-lock. Error {} (22).";
    const std::string write = "Could not acquire write-lock. Error {} (22).";
    const std::string unlock = "Could not unlock read-write-lock. Error {} (22).";
    ExpectFailures(Told::ByCode,
                   {{"pthread_rwlock_init", [] { RWLockService(); }, "Could not initialize rw-lock. Error {} (22)."},
                    {"pthread_rwlock_rdlock", [&] { lock.AcquireReadLock(); }, read},
                    {"pthread_rwlock_wrlock", [&] { lock.AcquireWriteLock(); }, write},
                    {"pthread_rwlock_unlock", [&] { lock.ReleaseReadLock(); }, unlock},
                    {"pthread_rwlock_unlock", [&] { lock.ReleaseWriteLock(); }, unlock},
                    {"pthread_rwlock_tryrdlock", [&] { lock.TryAcquireReadLock(); }, read},
                    {"pthread_rwlock_trywrlock", [&] { lock.TryAcquireWriteLock(); }, write},
                    {"clock_gettime", [&] { lock.TimedAcquireReadLock(1); }, "Could not compute timeout."},
                    {"clock_gettime", [&] { lock.TimedAcquireWriteLock(1); }, "Could not compute timeout."},
                    {"pthread_rwlock_destroy", [&] { lock.Destroy(); }, "Could not destroy rw-lock. Error {} (22)."}});
    ExpectFailures(Told::ByErrnoBesideCode, {{"pthread_rwlock_timedrdlock", [&] { lock.TimedAcquireReadLock(1); },
                                              "TimedAcquireReadLock: Mutex could not be timelocked: {}"},
                                             {"pthread_rwlock_timedwrlock", [&] { lock.TimedAcquireWriteLock(1); },
                                              "TimedAcquireWriteLock: Mutex could not be timelocked: {}"}});
}

TEST_F(RWLockTest, FailureInTheDestructorEndsTheProcess) {
    Child child([] {
        const FailingCall call("pthread_rwlock_destroy", EBUSY, 0);
        const RWLockService lock;
        return 0;
    });
    EXPECT_EQ(child.Wait(), 128 + SIGABRT);
}

}  // namespace
