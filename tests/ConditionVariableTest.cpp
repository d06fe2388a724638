#include "support/SharedObject.h"
#include "support/Test.h"

#include <typeinfo>

namespace {

class ConditionVariableTest : public FactoryTest {
protected:
    // This thread holds the mutex, and no other does.
    bool IsHeld() {
        bool taken = false;
        std::thread([&] { taken = mutex->TryLock(); }).join();
        return !taken;
    }

    const std::unique_ptr<IMutexService> mutex{factory->CreateMutex(false)};
    const std::unique_ptr<ICondVariableService> condition{factory->CreateConditionVariable()};
};

TEST_F(ConditionVariableTest, TimedWaitsEndWithTheMutexHeld) {
    const struct {
        std::function<bool()> wait;
        milliseconds atLeast;
    } table[] = {
        {[&] { return condition->WaitFor(*mutex, 0); }, milliseconds(0)},
        {[&] { return condition->WaitFor(*mutex, 30); }, milliseconds(30)},
        {[&] { return condition->WaitUntil(*mutex, steady_clock::now() + milliseconds(30)); }, milliseconds(30)},
        {[&] { return condition->WaitUntil(*mutex, steady_clock::now() - milliseconds(30)); }, milliseconds(0)},
        {[&] { return condition->WaitUntil(*mutex, ICondVariableService::SteadyTimePoint::min()); }, milliseconds(0)},
    };
    const MutexGuard guard(*mutex);
    for (const auto& row : table) {
        const auto start = steady_clock::now();
        // No thread notifies, but a wait may end without reason.
        while (row.wait()) {
        }
        EXPECT_GE(steady_clock::now() - start, row.atLeast);
        EXPECT_TRUE(IsHeld());
    }
}

TEST_F(ConditionVariableTest, DoesNotFollowTheWallClock) {
    const MutexGuard guard(*mutex);
    for (const long seconds : {-1000000L, 1000000L}) {
        const WallClockJump jump(seconds);
        const auto start = steady_clock::now();
        while (condition->WaitFor(*mutex, 30)) {
        }
        EXPECT_GE(steady_clock::now() - start, milliseconds(30));
    }
}

// A consumer that misses one notification waits for ever.
TEST_F(ConditionVariableTest, WakesThoseWhoWait) {
    const std::vector<std::function<void()>> waits = {
        [&] { condition->Wait(*mutex); },
        [&] { EXPECT_TRUE(condition->WaitFor(*mutex, 100000)); },
        [&] { EXPECT_TRUE(condition->WaitUntil(*mutex, steady_clock::now() + std::chrono::hours(1))); },
        [&] { EXPECT_TRUE(condition->WaitUntil(*mutex, ICondVariableService::SteadyTimePoint::max())); },
    };
    for (const auto& wait : waits) {
        int turn = 0;
        std::thread other([&] {
            const MutexGuard guard(*mutex);
            for (int i = 0; i < 100; ++i) {
                while (turn != 1) {
                    wait();
                }
                turn = 0;
                condition->NotifyOne();
            }
        });
        {
            const MutexGuard guard(*mutex);
            for (int i = 0; i < 100; ++i) {
                turn = 1;
                condition->NotifyAll();
                while (turn != 0) {
                    wait();
                }
            }
        }
        other.join();
    }
}

TEST_F(ConditionVariableTest, RefusesARecursiveMutexAfterUnlockingIt) {
    const std::unique_ptr<IMutexService> recursive(factory->CreateMutex(true));
    const auto refuses = [&](const char* operation, const std::function<void()>& wait) {
        recursive->Lock();
        EXPECT_TRUE(Throws<VeException>(
            wait, std::string(operation) + ": Recursive locks are not supported by condition variables."));
        std::thread([&] {
            EXPECT_TRUE(recursive->TryLock());
            recursive->Unlock();
        }).join();
    };
    refuses("Wait", [&] { condition->Wait(*recursive); });
    refuses("WaitFor", [&] { condition->WaitFor(*recursive, 1); });
    refuses("WaitUntil", [&] { condition->WaitUntil(*recursive, steady_clock::now()); });
}

TEST_F(ConditionVariableTest, RefusesAMutexOfAnotherKind) {
    class ForeignMutex : public MutexServiceBase {
    public:
        ForeignMutex() : ServiceObjectBase("ForeignMutex", ServiceType::Mutex, false) {}
        bool IsRecursive() const override { return false; }
        void Lock() override {}
        int TimedLock(unsigned int) override { return 0; }
        bool TryLock() override { return true; }
        void Unlock() override {}
    };
    ForeignMutex foreign;
    EXPECT_THROW(condition->Wait(foreign), std::bad_cast);
    EXPECT_THROW(condition->WaitFor(foreign, 1), std::bad_cast);
    EXPECT_THROW(condition->WaitUntil(foreign, steady_clock::now()), std::bad_cast);
}

TEST_F(ConditionVariableTest, FailedCallsAreReported) {
    const std::function<void()> create = [] { ConditionVariableService(); };
    const std::function<void()> createIpc = [] { IpcCondVarService(); };
    for (const auto& constructor : {create, createIpc}) {
        ExpectFailures(Told::ByCode,
                       {{"pthread_condattr_init", constructor, "Could not initialize condition variable attribute."},
                        {"pthread_condattr_setclock", constructor,
                         "Could not set MONOTONIC clock as reference for condition variable."},
                        {"pthread_condattr_setpshared", constructor, "Could not mark event as process private only."},
                        {"pthread_cond_init", constructor, "{}"}});
    }
    ConditionVariableService service;
    IpcCondVarService ipc;
    IpcMutexService ipcMutex;
    ipcMutex.Init(false);
    const MutexGuard guard(*mutex);
    const MutexGuard ipcGuard(ipcMutex);
    ExpectFailures(Told::ByCode,
                   {{"pthread_condattr_destroy", create, "Could not destroy condition variable attribute."},
                    {"pthread_cond_signal", [&] { service.NotifyOne(); }, "{}"},
                    {"pthread_cond_broadcast", [&] { service.NotifyAll(); }, "{}"},
                    {"pthread_cond_wait", [&] { service.Wait(*mutex); }, "{}"},
                    {"pthread_cond_timedwait", [&] { service.WaitFor(*mutex, 1); }, "{}"},
                    {"pthread_cond_timedwait", [&] { service.WaitUntil(*mutex, steady_clock::now()); }, "{}"},
                    {"clock_gettime", [&] { service.WaitFor(*mutex, 1); }, "Could not compute timeout."},
                    {"pthread_cond_destroy", [&] { service.Destroy(); }, "{}"},
                    {"pthread_cond_signal", [&] { ipc.NotifyOne(); }, "{}"},
                    {"pthread_cond_broadcast", [&] { ipc.NotifyAll(); }, "{}"},
                    {"pthread_cond_wait", [&] { ipc.Wait(ipcMutex); }, "{}"},
                    {"clock_gettime", [&] { ipc.WaitFor(ipcMutex, 1); }, "Could not compute timeout."},
                    {"pthread_cond_destroy", [&] { ipc.Destroy(); }, "{}"}});
    ExpectFailures(Told::ByErrnoBesideCode, {{"pthread_cond_timedwait", [&] { ipc.WaitFor(ipcMutex, 1); }, "{}"}});
}

TEST(IpcCondVarTest, LosesNothingBetweenProcesses) {
    constexpr int messages = 100000;
    struct Shared {
        IpcMutexService mutex;
        IpcCondVarService changed;
        int produced = 0;
        int consumed = 0;
    };
    const SharedObject<Shared> shared;
    shared->mutex.Init(false);
    {
        Child consumer([&] {
            const MutexGuard guard(shared->mutex);
            while (shared->consumed < messages) {
                while (shared->consumed == shared->produced) {
                    shared->changed.Wait(shared->mutex);
                }
                ++shared->consumed;
                shared->changed.NotifyAll();
            }
            return 0;
        });
        for (int i = 0; i < messages; ++i) {
            const MutexGuard guard(shared->mutex);
            // A queue of sixteen places.
            while (shared->produced - shared->consumed == 16) {
                shared->changed.WaitFor(shared->mutex, 100000);
            }
            ++shared->produced;
            shared->changed.NotifyOne();
        }
        EXPECT_EQ(consumer.Wait(), 0);
    }
    EXPECT_EQ(shared->consumed, messages);
    shared->mutex.Lock();
    EXPECT_FALSE(shared->changed.WaitFor(shared->mutex, 0));
    shared->mutex.Unlock();
    shared->changed.Destroy();
    shared->mutex.Destroy();
}

}  // namespace
