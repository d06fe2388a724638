#include "support/Child.h"
#include "support/FactoryTest.h"
#include "support/FailingCall.h"
#include "support/Throws.h"

#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/IRWLockService.h>
#include <Kel/System/Ve/Internal/Linux/RWLockService.h>

#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <thread>

using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::Linux::RWLockService;

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
    RWLockService other;
    ExpectFailures({
        {"pthread_rwlock_init", ENOMEM, EPERM, [] { RWLockService(); },
         "Could not initialize rw-lock. Error Cannot allocate memory (12)."},
        {"pthread_rwlock_rdlock", EAGAIN, EPERM, [&] { lock.AcquireReadLock(); },
         "Could not acquire read-lock. Error Resource temporarily unavailable (11)."},
        {"pthread_rwlock_wrlock", EINVAL, EPERM, [&] { lock.AcquireWriteLock(); },
         "Could not acquire write-lock. Error Invalid argument (22)."},
        {"pthread_rwlock_unlock", EINVAL, EPERM, [&] { lock.ReleaseReadLock(); },
         "Could not unlock read-write-lock. Error Invalid argument (22)."},
        {"pthread_rwlock_unlock", EPERM, EINVAL, [&] { lock.ReleaseWriteLock(); },
         "Could not unlock read-write-lock. Error Operation not permitted (1)."},
        {"pthread_rwlock_tryrdlock", EAGAIN, EPERM, [&] { lock.TryAcquireReadLock(); },
         "Could not acquire read-lock. Error Resource temporarily unavailable (11)."},
        {"pthread_rwlock_trywrlock", EINVAL, EPERM, [&] { lock.TryAcquireWriteLock(); },
         "Could not acquire write-lock. Error Invalid argument (22)."},
        {"pthread_rwlock_timedrdlock", EDEADLK, EPERM, [&] { lock.TimedAcquireReadLock(1); },
         "TimedAcquireReadLock: Mutex could not be timelocked: Operation not permitted"},
        {"pthread_rwlock_timedwrlock", EDEADLK, EPERM, [&] { lock.TimedAcquireWriteLock(1); },
         "TimedAcquireWriteLock: Mutex could not be timelocked: Operation not permitted"},
        {"clock_gettime", -1, EINVAL, [&] { lock.TimedAcquireReadLock(1); }, "Could not compute timeout."},
        {"clock_gettime", -1, EINVAL, [&] { lock.TimedAcquireWriteLock(1); }, "Could not compute timeout."},
        {"pthread_rwlock_destroy", EBUSY, EPERM, [&] { other.Destroy(); },
         "Could not destroy rw-lock. Error Device or resource busy (16)."},
    });
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
