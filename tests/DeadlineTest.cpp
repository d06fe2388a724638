#include "support/Test.h"

namespace {

using DeadlineTest = FactoryTest;
using SteadyTimePoint = ICondVariableService::SteadyTimePoint;

// The clocks stand still: realtime at 5.5 seconds, monotonic at 7.5.
TEST_F(DeadlineTest, IsOnTheClockOfTheCallThatWaits) {
    int readings = 0;
    const Interposition clocks("clock_gettime", [&](const Interposition::Arguments& arguments) {
        ++readings;
        *Interposition::Pointer<timespec>(arguments[1]) = {arguments[0] == CLOCK_REALTIME ? 5 : 7, 500000000};
        return 0;
    });
    MutexService mutex;
    mutex.Init(false, MutexService::ProcessPrivate);
    RWLockService lock;
    SemaphoreService semaphore(1);
    ConditionVariableService condition;
    IpcMutexService ipcMutex;
    IpcCondVarService ipcCondition;
    // What is free is acquired without that.
    EXPECT_TRUE(mutex.TimedLock(1) == 0 && semaphore.Wait(1) && lock.TimedAcquireReadLock(1));
    lock.Unlock();
    EXPECT_TRUE(lock.TimedAcquireWriteLock(1));
    EXPECT_EQ(readings, 0);

    const struct {
        const char* call;
        int argument;
        std::function<bool()> wait;
        long long deadline;
    } table[] = {
        {"pthread_mutex_timedlock", 1, [&] { return mutex.TimedLock(1) == 0; }, 5501000000},
        {"pthread_rwlock_timedrdlock", 1, [&] { return lock.TimedAcquireReadLock(1); }, 5501000000},
        {"pthread_rwlock_timedwrlock", 1, [&] { return lock.TimedAcquireWriteLock(1); }, 5501000000},
        {"sem_timedwait", 1, [&] { return semaphore.Wait(4294967295); }, 4294972795000000},
        {"pthread_cond_timedwait", 2, [&] { return condition.WaitFor(mutex, 1); }, 7501000000},
        {"pthread_cond_timedwait", 2, [&] { return ipcCondition.WaitFor(ipcMutex, 1); }, 7501000000},
        {"pthread_cond_timedwait", 2, [&] { return condition.WaitUntil(mutex, SteadyTimePoint(milliseconds(1))); },
         1000000},
        {"pthread_cond_timedwait", 2, [&] { return condition.WaitUntil(mutex, SteadyTimePoint::min()); }, 0},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.call);
        long long deadline = -1;
        const Interposition timedCall(row.call, [&](const Interposition::Arguments& arguments) {
            const auto& time = *Interposition::Pointer<timespec>(arguments.at(row.argument));
            deadline = time.tv_sec * 1000000000LL + time.tv_nsec;
            return 0;
        });
        EXPECT_TRUE(row.wait());
        EXPECT_EQ(deadline, row.deadline);
    }
    mutex.Unlock();
    lock.Unlock();
}

}  // namespace
