#include "support/Test.h"

namespace {

using DeadlineTest = FactoryTest;

// The clocks stand still: realtime at 5.5 seconds, monotonic at 7.5.
TEST_F(DeadlineTest, IsOnTheClockOfTheCallThatWaits) {
    const Interposition clocks("clock_gettime", [&](const auto& arguments) {
        *Interposition::Pointer<timespec>(arguments[1]) = {arguments[0] == CLOCK_REALTIME ? 5 : 7, 500000000};
        return 0;
    });
    const auto mutex = Own(factory->CreateMutex(false));
    const auto lock = Own(factory->CreateRWLock());
    const auto condition = Own(factory->CreateConditionVariable());
    IpcMutexService ipcMutex;
    IpcCondVarService ipcCondition;
    mutex->Lock();
    lock->AcquireWriteLock();
    const char* const waitForCondition = "pthread_cond_timedwait";
    const struct {
        const char* call;
        std::function<bool()> wait;
        long long deadline;
    } table[] = {
        {"pthread_mutex_timedlock", [&] { return mutex->TimedLock(1) == 0; }, 5501000000},
        {"pthread_rwlock_timedrdlock", [&] { return lock->TimedAcquireReadLock(1); }, 5501000000},
        {"pthread_rwlock_timedwrlock", [&] { return lock->TimedAcquireWriteLock(1); }, 5501000000},
        {"sem_timedwait", [] { return SemaphoreService(0).Wait(4294967295); }, 4294972795000000},
        {waitForCondition, [&] { return condition->WaitFor(*mutex, 1); }, 7501000000},
        {waitForCondition, [&] { return ipcCondition.WaitFor(ipcMutex, 1); }, 7501000000},
        {waitForCondition, [&] { return condition->WaitUntil(*mutex, steady_clock::time_point::min()); }, 0},
        // As late as the system's own times go.
        {waitForCondition, [&] { return condition->WaitUntil(*mutex, steady_clock::time_point::max()); },
         sizeof(time_t) == 4 ? 2147483647854775807 : 9223372036854775807},
    };
    for (const auto& row : table) {
        const Interposition timedCall(row.call, [&](const auto& arguments) {
            const auto& time = *Interposition::Pointer<timespec>(arguments[row.call == waitForCondition ? 2 : 1]);
            EXPECT_EQ(time.tv_sec * 1000000000LL + time.tv_nsec, row.deadline) << row.call;
            return 0;
        });
        EXPECT_TRUE(row.wait()) << row.call;
    }
    mutex->Unlock();
    lock->ReleaseWriteLock();
}

}  // namespace
