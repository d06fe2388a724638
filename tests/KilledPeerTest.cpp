#include "support/Test.h"

namespace {

class KilledPeerTest : public FactoryTest {
protected:
    struct Shared {
        IpcMutexService mutex;
        IpcCondVarService changed;
    };

    void SetUp() override {
        if (IsEmulated()) {
            GTEST_SKIP() << "user-mode emulation keeps no list of the mutexes that a process holds";
        }
        shared->mutex.Init(false);
    }

    void KillHolder(const std::function<void()>& lastDeed = [] {}) {
        Child holder([&] {
            shared->mutex.Lock();
            lastDeed();
            return raise(SIGKILL);
        });
        holder.Wait();
    }

    // The mutex is as good as any, and nobody holds it.
    void ExpectFree() {
        EXPECT_TRUE(shared->mutex.TryLock());
        shared->mutex.Unlock();
    }

    const SharedObject<Shared> shared;
};

TEST_F(KilledPeerTest, NextWhoAcquiresTheMutexIsToldAndDoesNotHoldIt) {
    const std::pair<Operation, std::string> table[] = {
        {[&] { shared->mutex.Lock(); }, "VeException: Lock: Mutex could not be locked: Owner died"},
        {[&] { shared->mutex.TryLock(); }, "VeException: TryLock: Mutex could not be trylocked: Owner died"},
        {[&] { shared->mutex.TimedLock(1); }, "VeException: TimedLock: Mutex could not be timelocked: Owner died"},
    };
    for (const auto& [acquire, outcome] : table) {
        KillHolder();
        EXPECT_TRUE(ComesTo(acquire, outcome));
        ExpectFree();
    }
}

TEST_F(KilledPeerTest, WaitForAConditionEndsWithTheMutexHeldAndGood) {
    const Operation waits[] = {[&] { shared->changed.Wait(shared->mutex); },
                               [&] { shared->changed.WaitFor(shared->mutex, 60000); }};
    for (const auto& wait : waits) {
        const auto waitInThread = [&] {
            const MutexGuard guard(shared->mutex);
            EXPECT_TRUE(ComesTo(wait, "VeException: Owner died"));
            EXPECT_FALSE(shared->mutex.TryLock());
        };
        std::thread told = Sleeping(waitInThread);
        KillHolder([&] { shared->changed.NotifyAll(); });
        told.join();
        ExpectFree();

        std::thread cancelled = Sleeping(waitInThread);
        KillHolder();
        pthread_cancel(cancelled.native_handle());
        cancelled.join();
        ExpectFree();
    }
}

}  // namespace
