#include "support/Test.h"

namespace {

class ConditionVariableTest : public FactoryTest {
protected:
    ConditionVariableTest() { ipcMutex.Init(false); }

    IpcMutexService ipcMutex;
    IpcCondVarService ipcCondition;
    const std::unique_ptr<IMutexService> mutex{factory->CreateMutex(false)};
    const std::unique_ptr<ICondVariableService> condition{factory->CreateConditionVariable()};
};

TEST_F(ConditionVariableTest, TimedWaitsDoNotEndEarly) {
    const std::function<bool()> table[] = {
        [&] { return condition->WaitFor(*mutex, 30); },
        [&] { return condition->WaitUntil(*mutex, steady_clock::now() + milliseconds(30)); },
        [&] {
            const MutexGuard guard(ipcMutex);
            return ipcCondition.WaitFor(ipcMutex, 30);
        },
    };
    const MutexGuard guard(*mutex);
    for (const auto& wait : table) {
        // Nobody notifies, but a wait may end without reason.
        EXPECT_TRUE(Takes(milliseconds(30), [&] { WaitUntil([&] { return !wait(); }); }));
    }
}

TEST_F(ConditionVariableTest, RefusesARecursiveMutexAfterUnlockingItOnce) {
    const auto recursive = Own(factory->CreateMutex(true));
    const std::pair<std::string, std::function<void(IMutexService&)>> table[] = {
        {"Wait", [&](IMutexService& with) { condition->Wait(with); }},
        {"WaitFor", [&](IMutexService& with) { condition->WaitFor(with, 1); }},
        {"WaitUntil", [&](IMutexService& with) { condition->WaitUntil(with, steady_clock::now()); }}};
    for (const auto& [name, wait] : table) {
        recursive->Lock();
        recursive->Lock();
        EXPECT_TRUE(ComesTo([&, operation = wait] { operation(*recursive); },
                            "VeException: " + name + ": Recursive locks are not supported by condition variables."));
        std::thread([&] { EXPECT_FALSE(recursive->TryLock()); }).join();
        recursive->Unlock();
        std::thread([&] { const MutexGuard guard(*recursive); }).join();
    }
}

TEST_F(ConditionVariableTest, IsMadeForThreadsOfOneProcessAndDestroyedOnce) {
    const auto calls = CallsOf("pthread_condattr_setpshared", [&] { Own(factory->CreateConditionVariable()); });
    EXPECT_EQ(static_cast<int>(calls.at(0)[1]), PTHREAD_PROCESS_PRIVATE);
    EXPECT_EQ(CallsOf("pthread_cond_destroy", [] { ConditionVariableService().Destroy(); }).size(), 1U);
}

TEST_F(ConditionVariableTest, FailuresAreReported) {
    const auto create = [&] { return factory->CreateConditionVariable(); };
    const std::string invalid = "VeException: Invalid argument";
    ExpectFailures({
        {"pthread_condattr_init", create, "VeException: Could not initialize condition variable attribute."},
        {"pthread_condattr_setclock", create,
         "VeException: Could not set MONOTONIC clock as reference for condition variable."},
        {"pthread_condattr_setpshared", create, "VeException: Could not mark event as process private only."},
        {"pthread_cond_init", create, invalid},
        {"pthread_condattr_destroy", create, "VeException: Could not destroy condition variable attribute."},
        {"pthread_cond_wait", [&] { condition->Wait(*mutex); }, invalid},
        {"pthread_cond_wait", [&] { ipcCondition.Wait(ipcMutex); }, invalid},
        {"pthread_cond_timedwait", [&] { condition->WaitFor(*mutex, 1); }, invalid},
        // The text is that of errno.
        {"pthread_cond_timedwait", [&] { ipcCondition.WaitFor(ipcMutex, 1); }, "VeException: Permission denied"},
        {"pthread_cond_signal", [&] { condition->NotifyOne(); }, invalid},
        {"pthread_cond_signal", [&] { ipcCondition.NotifyOne(); }, invalid},
        {"pthread_cond_broadcast", [&] { condition->NotifyAll(); }, invalid},
        {"pthread_cond_broadcast", [&] { ipcCondition.NotifyAll(); }, invalid},
        {"pthread_cond_destroy", [&] { ipcCondition.Destroy(); }, invalid},
        {"pthread_cond_destroy", create, "ends the process: " + invalid},
    });
}

}  // namespace
