#include "support/Test.h"

namespace {

class KilledPeerTest : public FactoryTest {
protected:
    void SetUp() override {
        if (IsEmulated()) {
            GTEST_SKIP() << "user-mode emulation keeps no list of the mutexes that a process holds";
        }
        mutex->Init(false);
    }

    void KillHolder() {
        Child([this] {
            mutex->Lock();
            return raise(SIGKILL);
        }).Wait();
    }

    SharedObject<IpcMutexService> mutex;
    SharedObject<IpcCondVarService> changed;
};

TEST_F(KilledPeerTest, NextWhoAcquiresTheMutexIsToldAndDoesNotHoldIt) {
    const std::pair<Operation, std::string> table[] = {
        {[&] { mutex->Lock(); }, "VeException: Lock: Mutex could not be locked: Owner died"},
        {[&] { mutex->TryLock(); }, "VeException: TryLock: Mutex could not be trylocked: Owner died"},
        {[&] { mutex->TimedLock(1); }, "VeException: TimedLock: Mutex could not be timelocked: Owner died"},
    };
    for (const auto& [acquire, outcome] : table) {
        KillHolder();
        EXPECT_TRUE(ComesTo(acquire, outcome));
        // It is as good as any, and nobody holds it.
        EXPECT_TRUE(mutex->TryLock());
        mutex->Unlock();
    }
}

TEST_F(KilledPeerTest, WaitForAConditionEndsWithTheMutexHeldAndGood) {
    std::thread waiter;
    const std::pair<Operation, std::function<void()>> table[] = {
        {[&] { changed->WaitFor(*mutex, 60000); }, [&] { changed->NotifyAll(); }},
        {[&] { changed->Wait(*mutex); }, [&] { pthread_cancel(waiter.native_handle()); }},
    };
    for (const auto& [wait, end] : table) {
        waiter = Sleeping([&, operation = wait] {
            // Would fail to unlock a mutex that it does not hold.
            const MutexGuard guard(*mutex);
            EXPECT_TRUE(ComesTo(operation, "VeException: Owner died"));
        });
        KillHolder();
        end();
        waiter.join();
        EXPECT_TRUE(mutex->TryLock());
        mutex->Unlock();
    }
}

}  // namespace
