#include "support/Test.h"

#include <typeinfo>

namespace {

class ConditionVariableTest : public FactoryTest {
protected:
    const std::unique_ptr<IMutexService> mutex{factory->CreateMutex(false)};
    const std::unique_ptr<ICondVariableService> condition{factory->CreateConditionVariable()};
};

TEST_F(ConditionVariableTest, WakesThreadsAndProcessesThatWait) {
    // Whoever misses a notification waits for ever.
    const auto takeTurns = [](auto& guarded, auto& changed, int& turn, int own) {
        const MutexGuard guard(guarded);
        for (int i = 0; i < 1000; ++i) {
            while (turn != own) {
                changed.Wait(guarded);
            }
            turn = 1 - own;
            changed.NotifyOne();
        }
    };
    int turn = 0;
    std::thread thread([&] { takeTurns(*mutex, *condition, turn, 1); });
    takeTurns(*mutex, *condition, turn, 0);
    thread.join();

    struct Shared {
        IpcMutexService mutex;
        IpcCondVarService condition;
        int turn = 0;
    };
    const SharedObject<Shared> shared;
    shared->mutex.Init(false);
    Child child([&] {
        takeTurns(shared->mutex, shared->condition, shared->turn, 1);
        return 0;
    });
    takeTurns(shared->mutex, shared->condition, shared->turn, 0);
    EXPECT_EQ(child.Wait(), 0);
}

TEST_F(ConditionVariableTest, TimedWaitsDoNotEndEarly) {
    IpcMutexService ipcMutex;
    ipcMutex.Init(false);
    IpcCondVarService ipcCondition;
    const std::pair<int, std::function<bool()>> table[] = {
        {0, [&] { return condition->WaitFor(*mutex, 0); }},
        {30, [&] { return condition->WaitFor(*mutex, 30); }},
        {30,
         [&] {
             const MutexGuard ipcGuard(ipcMutex);
             return ipcCondition.WaitFor(ipcMutex, 30);
         }},
        {30, [&] { return condition->WaitUntil(*mutex, steady_clock::now() + milliseconds(30)); }},
        {0, [&] { return condition->WaitUntil(*mutex, steady_clock::time_point::min()); }},
    };
    const MutexGuard guard(*mutex);
    for (const auto& [atLeast, wait] : table) {
        // Nobody notifies, but a wait may end without reason.
        EXPECT_TRUE(Takes(milliseconds(atLeast), [wait = wait] { WaitUntil([&] { return !wait(); }); }));
    }
}

TEST_F(ConditionVariableTest, RefusesARecursiveMutexAfterUnlockingItAndOneOfAnotherKind) {
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
    const auto recursive = Own(factory->CreateMutex(true));
    const std::pair<std::string, std::function<void(IMutexService&)>> table[] = {
        {"Wait", [&](IMutexService& with) { condition->Wait(with); }},
        {"WaitFor", [&](IMutexService& with) { condition->WaitFor(with, 1); }},
        {"WaitUntil", [&](IMutexService& with) { condition->WaitUntil(with, steady_clock::now()); }}};
    for (const auto& [name, wait] : table) {
        recursive->Lock();
        recursive->Lock();
        EXPECT_TRUE(ComesTo([&, wait = wait] { wait(*recursive); },
                            "VeException: " + name + ": Recursive locks are not supported by condition variables."));
        std::thread([&] { EXPECT_FALSE(recursive->TryLock()); }).join();
        recursive->Unlock();
        std::thread([&] {
            EXPECT_TRUE(recursive->TryLock());
            recursive->Unlock();
        }).join();
        EXPECT_THROW(wait(foreign), std::bad_cast);
    }
}

TEST_F(ConditionVariableTest, IsMadeForThreadsOfOneProcess) {
    const auto calls = CallsOf("pthread_condattr_setpshared", [&] { Own(factory->CreateConditionVariable()); });
    EXPECT_EQ(static_cast<int>(calls.at(0)[1]), PTHREAD_PROCESS_PRIVATE);
}

TEST_F(ConditionVariableTest, IsDestroyedOnce) {
    EXPECT_EQ(CallsOf("pthread_cond_destroy", [] { ConditionVariableService().Destroy(); }).size(), 1U);
}

TEST_F(ConditionVariableTest, FailuresAreReported) {
    const auto create = [&] { return factory->CreateConditionVariable(); };
    IpcMutexService ipcMutex;
    IpcCondVarService ipcCondition;
    ExpectFailures({
        {"pthread_condattr_init", create, "VeException: Could not initialize condition variable attribute."},
        {"pthread_condattr_setclock", create,
         "VeException: Could not set MONOTONIC clock as reference for condition variable."},
        {"pthread_condattr_setpshared", create, "VeException: Could not mark event as process private only."},
        {"pthread_cond_init", create, "VeException: Invalid argument"},
        {"pthread_condattr_destroy", create, "VeException: Could not destroy condition variable attribute."},
        {"pthread_cond_wait", [&] { condition->Wait(*mutex); }, "VeException: Invalid argument"},
        {"pthread_cond_wait", [&] { ipcCondition.Wait(ipcMutex); }, "VeException: Invalid argument"},
        {"pthread_cond_timedwait", [&] { condition->WaitFor(*mutex, 1); }, "VeException: Invalid argument"},
        // The text is that of errno.
        {"pthread_cond_timedwait", [&] { ipcCondition.WaitFor(ipcMutex, 1); }, "VeException: Permission denied"},
        {"pthread_cond_signal", [&] { condition->NotifyOne(); }, "VeException: Invalid argument"},
        {"pthread_cond_signal", [&] { ipcCondition.NotifyOne(); }, "VeException: Invalid argument"},
        {"pthread_cond_broadcast", [&] { condition->NotifyAll(); }, "VeException: Invalid argument"},
        {"pthread_cond_broadcast", [&] { ipcCondition.NotifyAll(); }, "VeException: Invalid argument"},
        {"pthread_cond_destroy", [&] { ipcCondition.Destroy(); }, "VeException: Invalid argument"},
        {"pthread_cond_destroy", create, "ends the process: VeException: Invalid argument"},
    });
}

}  // namespace
