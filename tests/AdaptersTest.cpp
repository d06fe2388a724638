#include "support/Test.h"

#include <Kel/System/Ve/Adapters/Lockable.h>
#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Adapters/SharedLockable.h>
#include <Kel/System/Ve/Adapters/Wait.h>

#include <cstdint>
#include <limits>
#include <mutex>
#include <shared_mutex>

namespace {

using namespace Adapters;
using std::chrono::duration;
using std::chrono::hours;
using std::chrono::nanoseconds;

class AdaptersTest : public FactoryTest {
protected:
    const Owned<IMutexService> mutex = Own(factory->CreateMutex(false));
    const Owned<IMutexService> recursiveMutex = Own(factory->CreateMutex(true));
    const Owned<IRWLockService> readWriteLock = Own(factory->CreateRWLock());
    const Owned<ICondVariableService> condition = Own(factory->CreateConditionVariable());
    Lockable lockable{*mutex};
    Lockable recursive{*recursiveMutex};
    SharedLockable shared{*readWriteLock};
};

template <template <class> class Lock, class View>
bool IsFree(View& view) {
    bool taken = false;
    std::thread([&] { taken = Lock<View>(view, std::try_to_lock).owns_lock(); }).join();
    return taken;
}

TEST_F(AdaptersTest, StandardLocksHoldAndRelease) {
    {
        const std::lock_guard guard(lockable);
        EXPECT_FALSE(IsFree<std::unique_lock>(lockable));
    }
    {
        std::unique_lock lock(lockable);
        lock.unlock();
        const std::scoped_lock both(lockable, recursive, shared);
        const std::lock_guard again(recursive);
        EXPECT_FALSE(IsFree<std::unique_lock>(lockable));
        EXPECT_FALSE(IsFree<std::unique_lock>(recursive));
        EXPECT_FALSE(IsFree<std::shared_lock>(shared));
    }
    {
        const std::shared_lock reading(shared);
        EXPECT_TRUE(IsFree<std::shared_lock>(shared));
        EXPECT_FALSE(IsFree<std::unique_lock>(shared));
    }
    EXPECT_TRUE(IsFree<std::unique_lock>(lockable));
    EXPECT_TRUE(IsFree<std::unique_lock>(recursive));
    EXPECT_TRUE(IsFree<std::unique_lock>(shared));
}

// Its epoch is two thousand years ago, which are more nanoseconds than there are numbers.
struct AncientClock {
    using duration = std::chrono::seconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<AncientClock>;
    static constexpr bool is_steady = false;
    static time_point now() {
        return time_point(hours(2000 * 8766) + std::chrono::floor<duration>(steady_clock::now().time_since_epoch()));
    }
};

// Calls `check(timeout, end)` with durations and time points of all kinds; none may run out before its end.
template <class Check>
void ForShortTimeouts(Check check) {
    const steady_clock::time_point past;
    check(milliseconds(-1), past);
    check(hours::min(), past);
    check(duration<double>(std::numeric_limits<double>::quiet_NaN()), past);
    check(steady_clock::time_point::min(), past);
    check(system_clock::time_point::min(), past);
    using Unsigned = duration<std::uint64_t, std::nano>;
    check(std::chrono::time_point<steady_clock, Unsigned>(steady_clock::now() - milliseconds(1)), past);
    check(AncientClock::now(), past);
    const nanoseconds exact(20000001);
    check(exact, steady_clock::now() + exact);
    const duration<double, std::milli> fraction(20.5);
    check(fraction, steady_clock::now() + nanoseconds(20500000));
    const steady_clock::time_point deadline = steady_clock::now() + exact;
    check(deadline, deadline);
    check(system_clock::now() + exact, past);
}

template <class Check>
void ForEndlessTimeouts(Check check) {
    check(hours::max());
    check(duration<double>(std::numeric_limits<double>::infinity()));
    check(steady_clock::time_point::max());
    check(std::chrono::time_point<system_clock, hours>::max());
}

template <class Lock, class View>
void ExpectTimeoutsToBeKept(View& view) {
    {
        const std::lock_guard holder(view);
        std::thread([&] {
            for (const long jump : {0L, -1000000L}) {
                // As if the realtime clock, which the services wait on, were set after they have read it.
                const WallClockJump setClock(jump);
                ForShortTimeouts([&](const auto& timeout, steady_clock::time_point end) {
                    EXPECT_FALSE(Lock(view, timeout).owns_lock());
                    EXPECT_GE(steady_clock::now(), end);
                });
            }
        }).join();
    }
    ForEndlessTimeouts([&](const auto& timeout) {
        std::unique_lock holder(view);
        std::thread waiting([&] { EXPECT_TRUE(Lock(view, timeout).owns_lock()); });
        holder.unlock();
        waiting.join();
    });
}

TEST_F(AdaptersTest, TimeoutsOfLocksNeverEndEarly) {
    ExpectTimeoutsToBeKept<std::unique_lock<Lockable>>(lockable);
    ExpectTimeoutsToBeKept<std::unique_lock<SharedLockable>>(shared);
    ExpectTimeoutsToBeKept<std::shared_lock<SharedLockable>>(shared);
}

TEST_F(AdaptersTest, WaitsEndWhenThePredicateIsTrue) {
    int turn = 0;
    const std::vector<std::function<void(std::unique_lock<Lockable>&, int)>> waits = {
        [&](auto& lock, int mine) { Wait(*condition, lock, [&] { return turn == mine; }); },
        [&](auto& lock, int mine) {
            EXPECT_TRUE(WaitFor(*condition, lock, hours::max(), [&] { return turn == mine; }));
        },
        [&](auto& lock, int mine) {
            EXPECT_TRUE(WaitUntil(*condition, lock, steady_clock::now() + hours(1), [&] { return turn == mine; }));
        },
    };
    const auto play = [&](int mine) {
        std::unique_lock lock(lockable);
        for (int i = 0; i < 100; ++i) {
            for (const auto& wait : waits) {
                wait(lock, mine);
                EXPECT_TRUE(lock.owns_lock());
                turn = 1 - mine;
                condition->NotifyOne();
            }
        }
    };
    std::thread other([&] { play(1); });
    play(0);
    other.join();
}

TEST_F(AdaptersTest, TimeoutsOfWaitsNeverEndEarly) {
    std::unique_lock lock(lockable);
    ForShortTimeouts([&](const auto& timeout, steady_clock::time_point end) {
        const auto never = [] { return false; };
        using Timeout = std::decay_t<decltype(timeout)>;
        if constexpr (std::is_convertible_v<Timeout, ICondVariableService::SteadyTimePoint>) {
            EXPECT_FALSE(WaitUntil(*condition, lock, timeout, never));
        } else if constexpr (std::is_convertible_v<Timeout, duration<double>>) {
            EXPECT_FALSE(WaitFor(*condition, lock, timeout, never));
        }  // Other clocks cannot be waited on.
        EXPECT_GE(steady_clock::now(), end);
        EXPECT_TRUE(lock.owns_lock());
    });
}

// Which waits unlock before they refuse it: a second unlock would end the process.
TEST_F(AdaptersTest, WaitWithARecursiveMutexIsAnException) {
    std::unique_lock lock(recursive);
    EXPECT_TRUE(Throws<VeException>([&] { Wait(*condition, lock, [] { return false; }); },
                                    "Wait: Recursive locks are not supported by condition variables."));
    EXPECT_FALSE(lock.owns_lock());
    EXPECT_TRUE(IsFree<std::unique_lock>(recursive));
}

}  // namespace
