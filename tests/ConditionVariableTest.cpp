#include "support/SharedObject.h"
#include "support/Test.h"

#include <typeinfo>

namespace {

class ConditionVariableTest : public FactoryTest {
protected:
    // This thread holds the mutex, or no thread does.
    static bool IsHeld(IMutexService& mutex) {
        bool taken = false;
        std::thread([&] {
            taken = mutex.TryLock();
            if (taken) {
                mutex.Unlock();
            }
        }).join();
        return !taken;
    }

    const std::unique_ptr<IMutexService> mutex{factory->CreateMutex(false)};
    const std::unique_ptr<ICondVariableService> condition{factory->CreateConditionVariable()};
};

TEST_F(ConditionVariableTest, TimedWaitsEndInTimeWithTheMutexHeldWhateverTheWallClockSays) {
    const std::pair<std::function<bool()>, int> table[] = {
        {[&] { return condition->WaitFor(*mutex, 0); }, 0},
        {[&] { return condition->WaitFor(*mutex, 30); }, 30},
        {[&] { return condition->WaitUntil(*mutex, steady_clock::now() + milliseconds(30)); }, 30},
        {[&] { return condition->WaitUntil(*mutex, steady_clock::now() - milliseconds(30)); }, 0},
        {[&] { return condition->WaitUntil(*mutex, ICondVariableService::SteadyTimePoint::min()); }, 0},
    };
    const MutexGuard guard(*mutex);
    for (const long seconds : {0L, -1000000L, 1000000L}) {
        const WallClockJump jump(seconds);
        for (const auto& [wait, atLeast] : table) {
            // No thread notifies, but a wait may end without reason.
            EXPECT_TRUE(Takes(milliseconds(atLeast), [&, wait = wait] { WaitUntil([&] { return !wait(); }); }));
            EXPECT_TRUE(IsHeld(*mutex));
        }
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
        // 100 times, in turn with the other.
        const auto take = [&](int own, const std::function<void()>& notify) {
            const MutexGuard guard(*mutex);
            for (int i = 0; i < 100; ++i) {
                while (turn != own) {
                    wait();
                }
                turn = 1 - own;
                notify();
            }
        };
        std::thread other(take, 1, [&] { condition->NotifyOne(); });
        take(0, [&] { condition->NotifyAll(); });
        other.join();
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
    const std::unique_ptr<IMutexService> recursive(factory->CreateMutex(true));
    const std::pair<std::string, std::function<void(IMutexService&)>> table[] = {
        {"Wait", [&](IMutexService& with) { condition->Wait(with); }},
        {"WaitFor", [&](IMutexService& with) { condition->WaitFor(with, 1); }},
        {"WaitUntil", [&](IMutexService& with) { condition->WaitUntil(with, steady_clock::now()); }}};
    for (const auto& row : table) {
        recursive->Lock();
        EXPECT_TRUE(Throws([&] { row.second(*recursive); },
                           row.first + ": Recursive locks are not supported by condition variables."));
        EXPECT_FALSE(IsHeld(*recursive));
        EXPECT_THROW(row.second(foreign), std::bad_cast);
    }
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
