#include "support/Child.h"
#include "support/FactoryTest.h"
#include "support/FailingCall.h"
#include "support/SharedObject.h"
#include "support/Throws.h"

#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/ICondVariableService.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/Internal/Linux/ConditionVariableService.h>
#include <Kel/System/Ve/Internal/Linux/IpcCondVarService.h>
#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>
#include <Kel/System/Ve/Internal/MutexGuard.h>
#include <Kel/System/Ve/Internal/MutexServiceBase.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <typeinfo>
#include <vector>

using Kel::System::Ve::ICondVariableService;
using Kel::System::Ve::IMutexService;
using Kel::System::Ve::ServiceType;
using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::MutexGuard;
using Kel::System::Ve::Internal::MutexServiceBase;
using Kel::System::Ve::Internal::Linux::ConditionVariableService;
using Kel::System::Ve::Internal::Linux::IpcCondVarService;
using Kel::System::Ve::Internal::Linux::IpcMutexService;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

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
    const auto create = [] { ConditionVariableService(); };
    const auto createIpc = [] { IpcCondVarService(); };
    for (const std::function<void()>& constructor : {std::function<void()>(create), std::function<void()>(createIpc)}) {
        ExpectFailures({
            {"pthread_condattr_init", ENOMEM, EPERM, constructor, "Could not initialize condition variable attribute."},
            {"pthread_condattr_setclock", EINVAL, EPERM, constructor,
             "Could not set MONOTONIC clock as reference for condition variable."},
            {"pthread_condattr_setpshared", EINVAL, EPERM, constructor,
             "Could not mark event as process private only."},
            {"pthread_cond_init", EAGAIN, EPERM, constructor, "Resource temporarily unavailable"},
        });
    }
    ConditionVariableService service;
    IpcCondVarService ipc;
    IpcMutexService ipcMutex;
    ipcMutex.Init(false);
    const MutexGuard guard(*mutex);
    const MutexGuard ipcGuard(ipcMutex);
    ExpectFailures({
        {"pthread_condattr_destroy", EINVAL, EPERM, create, "Could not destroy condition variable attribute."},
        {"pthread_cond_signal", EINVAL, EPERM, [&] { service.NotifyOne(); }, "Invalid argument"},
        {"pthread_cond_broadcast", EINVAL, EPERM, [&] { service.NotifyAll(); }, "Invalid argument"},
        {"pthread_cond_wait", EPERM, EINVAL, [&] { service.Wait(*mutex); }, "Operation not permitted"},
        {"pthread_cond_timedwait", EPERM, EINVAL, [&] { service.WaitFor(*mutex, 1); }, "Operation not permitted"},
        {"pthread_cond_timedwait", EPERM, EINVAL, [&] { service.WaitUntil(*mutex, steady_clock::now()); },
         "Operation not permitted"},
        {"clock_gettime", -1, EINVAL, [&] { service.WaitFor(*mutex, 1); }, "Could not compute timeout."},
        {"pthread_cond_destroy", EBUSY, EPERM, [&] { service.Destroy(); }, "Device or resource busy"},
        {"pthread_cond_signal", EINVAL, EPERM, [&] { ipc.NotifyOne(); }, "Invalid argument"},
        {"pthread_cond_broadcast", EINVAL, EPERM, [&] { ipc.NotifyAll(); }, "Invalid argument"},
        {"pthread_cond_wait", EPERM, EINVAL, [&] { ipc.Wait(ipcMutex); }, "Operation not permitted"},
        {"pthread_cond_timedwait", EINVAL, EPERM, [&] { ipc.WaitFor(ipcMutex, 1); }, "Operation not permitted"},
        {"clock_gettime", -1, EINVAL, [&] { ipc.WaitFor(ipcMutex, 1); }, "Could not compute timeout."},
        {"pthread_cond_destroy", EBUSY, EPERM, [&] { ipc.Destroy(); }, "Device or resource busy"},
    });
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
