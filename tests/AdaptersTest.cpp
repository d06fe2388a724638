#include "support/Test.h"

#include <Kel/System/Ve/Adapters/Lockable.h>
#include <Kel/System/Ve/Adapters/Runtime.h>
#include <Kel/System/Ve/Adapters/SharedLockable.h>
#include <Kel/System/Ve/Adapters/Wait.h>

#include <array>
#include <cstdint>
#include <limits>
#include <mutex>
#include <shared_mutex>

namespace {

using namespace Adapters;
using std::chrono::duration;
using std::chrono::hours;
using std::chrono::nanoseconds;
using std::chrono::time_point;

class AdaptersTest : public FactoryTest {
protected:
    // Whether another thread can acquire the mutex, and the other lock to read and to write.
    std::array<bool, 3> Free() {
        std::array<bool, 3> free{};
        std::thread([&] {
            free[0] = std::unique_lock(lockable, std::try_to_lock).owns_lock();
            free[1] = std::shared_lock(shared, std::try_to_lock).owns_lock();
            free[2] = std::unique_lock(shared, std::try_to_lock).owns_lock();
        }).join();
        return free;
    }

    template <class Lock, class View>
    void ExpectHeld(View& view, const std::array<bool, 3>& freeMeanwhile) {
        const std::function<Lock()> table[] = {[&] { return Lock(view); }, [&] { return Lock(view, std::try_to_lock); },
                                               [&] { return Lock(view, hours(1)); }};
        for (const auto& acquire : table) {
            const Lock lock = acquire();
            EXPECT_TRUE(lock.owns_lock());
            EXPECT_EQ(Free(), freeMeanwhile);
        }
        EXPECT_EQ(Free(), (std::array{true, true, true}));
    }

    template <class Lock, class View>
    static void ExpectTimeouts(View& view) {
        const auto expectFailure = [&](const auto& timeout, steady_clock::time_point end = {}) {
            EXPECT_FALSE(Lock(view, timeout).owns_lock());
            EXPECT_GE(steady_clock::now(), end);
        };
        std::unique_lock holder(view);
        std::thread([&] {
            // As if the clock that the services wait on were set, each time, after they have read it.
            const Interposition clockIsSet("clock_gettime", [](const Interposition::Arguments& arguments) {
                *Interposition::Pointer<timespec>(arguments[1]) = {};
                return 0;
            });
            const nanoseconds exact(20000001);
            const duration<double> notANumber(std::numeric_limits<double>::quiet_NaN());
            const steady_clock::time_point deadline = steady_clock::now() + exact;
            expectFailure(deadline, deadline);
            expectFailure(duration<double, std::milli>(20.5), steady_clock::now() + nanoseconds(20500000));
            expectFailure(system_clock::now() + exact);
            expectFailure(hours::min());
            expectFailure(notANumber);
            expectFailure(time_point<steady_clock, duration<double>>(notANumber));
            expectFailure(steady_clock::time_point::min());
            expectFailure(time_point<steady_clock, duration<std::uint64_t, std::nano>>(deadline));
        }).join();

        const auto expectSuccess = [&](const auto& timeout) {
            std::thread waiting = Sleeping([&] { EXPECT_TRUE(Lock(view, timeout).owns_lock()); });
            holder.unlock();
            waiting.join();
            holder.lock();
        };
        expectSuccess(hours::max());
        expectSuccess(duration<double>(std::numeric_limits<double>::infinity()));
        expectSuccess(time_point<system_clock, hours>::max());
    }

    const Owned<IMutexService> mutex = Own(factory->CreateMutex(false));
    const Owned<IRWLockService> readWriteLock = Own(factory->CreateRWLock());
    const Owned<ICondVariableService> condition = Own(factory->CreateConditionVariable());
    Lockable lockable{*mutex};
    SharedLockable shared{*readWriteLock};
    const std::function<bool()> never = [] { return false; };
};

TEST_F(AdaptersTest, StandardLocksHoldAndRelease) {
    ExpectHeld<std::unique_lock<Lockable>>(lockable, {false, true, true});
    ExpectHeld<std::unique_lock<SharedLockable>>(shared, {true, false, false});
    ExpectHeld<std::shared_lock<SharedLockable>>(shared, {true, true, false});
}

TEST_F(AdaptersTest, TimeoutsOfLocksNeverEndEarly) {
    ExpectTimeouts<std::unique_lock<Lockable>>(lockable);
    ExpectTimeouts<std::unique_lock<SharedLockable>>(shared);
    ExpectTimeouts<std::shared_lock<SharedLockable>>(shared);
}

TEST_F(AdaptersTest, TimeoutsOfWaitsNeverEndEarlyAndAskThePredicateOnceMore) {
    std::unique_lock lock(lockable);
    const nanoseconds timeout(20000001);
    EXPECT_TRUE(Takes(milliseconds(20), [&] { EXPECT_FALSE(WaitFor(*condition, lock, timeout, never)); }));
    int calls = 0;
    EXPECT_TRUE(WaitUntil(*condition, lock, steady_clock::now(), [&] { return ++calls == 2; }));
    EXPECT_TRUE(lock.owns_lock());
}

TEST_F(AdaptersTest, WaitThatFailsLeavesTheLockAsTheMutexIs) {
    std::unique_lock held(lockable);
    {
        const FailingCall failing("pthread_cond_wait");
        EXPECT_TRUE(ComesTo([&] { Wait(*condition, held, never); }, "VeException: Invalid argument"));
    }
    EXPECT_TRUE(held.owns_lock());
    // Unlocked by the refusal: a second time would end the process.
    const auto recursiveMutex = Own(factory->CreateMutex(true));
    Lockable recursive(*recursiveMutex);
    std::unique_lock unlocked(recursive);
    EXPECT_THROW(Wait(*condition, unlocked, never), VeException);
    EXPECT_FALSE(unlocked.owns_lock());
}

TEST(RuntimeTest, IsOneAtATimeAndLeavesNothingWhenItFails) {
    for (int i = 0; i < 2; ++i) {
        const FailingCall making("pthread_mutex_init");
        EXPECT_THROW(Runtime(), VeException);
        const Runtime runtime;
        EXPECT_TRUE(ComesTo([] { Runtime(); }, "Exception: Runtime: The process has an AppDomain already."));
        EXPECT_TRUE(Own(runtime->CreateMutex(false)) && &*runtime == ServiceFactory::GetInstance());
    }
}

}  // namespace
