#include "support/OwnSettings.h"
#include "support/Test.h"
#include "support/ThreadStat.h"

namespace {

// Runs a std::function in a thread of the library.
void* Call(void* function) {
    (*static_cast<std::function<void()>*>(function))();
    return nullptr;
}

class ThreadTest : public FactoryTest {
protected:
    std::unique_ptr<IThreadService> Make(std::function<void()>& function, const BasicString& name = BasicString::Empty,
                                         unsigned int priority = 0, unsigned int mask = 0) {
        return std::unique_ptr<IThreadService>(factory->CreateThread(&Call, &function, name, priority, mask, 0));
    }

    // Nothing is asked of the C library for a thread that is not there.
    static void ExpectNoThread(IThreadService& thread) {
        const std::string noThread = ", linux error code: No such process";
        EXPECT_TRUE(Throws([&] { thread.ChangeName("x"); }, "ChangeName: Could not change threadname" + noThread));
        EXPECT_TRUE(Throws([&] { thread.ChangePriority(0); }, "ChangePriority: Could not change priority" + noThread));
        EXPECT_TRUE(Throws([&] { thread.ChangeCpuAffinity(1); },
                           "ChangeCpuAffinity: Could not change cpu affinity" + noThread));
    }

    static void ExpectNothingToJoin(IThreadService& thread) {
        const std::string noThread = " Thread did not succeed, linux error code: No such process";
        EXPECT_FALSE(thread.Joinable());
        EXPECT_TRUE(Throws([&] { thread.Join(); }, "Join: Joining" + noThread));
        EXPECT_TRUE(Throws([&] { thread.Cancel(); }, "Cancel: Canceling" + noThread));
        ExpectNoThread(thread);
    }

    SemaphoreService go{0};
    SemaphoreService done{0};
    std::function<void()> nothing = [] {};
};

TEST_F(ThreadTest, StartsWithItsSettingsOrLeavesNoThread) {
    std::string settings;
    std::size_t stackSize = 0;
    unsigned int id = 0;
    std::function<void()> look = [&] {
        settings = OwnSettings();
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stackSize);
        pthread_attr_destroy(&attributes);
        id = ThreadServiceBase::GetCurrentThreadId();
    };
    const auto thread = Make(look, "0123456789abcdefgh", 1000, 1U << 31U);
    ExpectNothingToJoin(*thread);
    // The C library leaves a handle behind in some of these.
    EXPECT_TRUE(Throws([&] { thread->StartThread(); },
                       "StartThread: Could not set scheduling parameters, linux error code: Invalid argument"));
    ExpectNothingToJoin(*thread);
    thread->SetPriority(0);
    EXPECT_TRUE(Throws([&] { thread->StartThread(); },
                       "StartThread: Could not create thread, linux error code: Invalid argument"));
    ExpectNothingToJoin(*thread);
    thread->SetCpuAffinity(1);
    thread->SetStackSize(1U << 24U);
    const std::uint32_t before = LiveObjects();
    thread->StartThread();
    // The semaphore of the start stays.
    EXPECT_EQ(LiveObjects(), before + 1);
    thread->Join();
    EXPECT_EQ(settings, "0123456789abcde, normal 0, 1 from 0");
    EXPECT_EQ(thread->GetName(), "0123456789abcde");
    EXPECT_GE(stackSize, 1U << 24U);
    EXPECT_NE(id, ThreadServiceBase::GetCurrentThreadId());
    ExpectNothingToJoin(*thread);
    if (!MayHaveRealTimePriority()) {
        GTEST_SKIP() << needsRealTime;
    }
    const auto realTime = Make(look, "real-time", 20, 1);
    realTime->StartThread();
    realTime->Join();
    EXPECT_EQ(settings, "real-time, real-time 20, 1 from 0");
}

TEST_F(ThreadTest, ThreadThatCannotNameItselfIsGone) {
    const auto thread = Make(nothing, "name");
    FailingCall naming("pthread_setname_np", EINVAL, EPERM);
    naming.InAnyThread();
    EXPECT_TRUE(Throws([&] { thread->StartThread(); }, "StartThread: , linux error code: Success"));
    ExpectNothingToJoin(*thread);
}

TEST_F(ThreadTest, ChangesTheRunningThread) {
    const std::string before = OwnSettings();
    std::string settings;
    std::function<void()> look = [&] {
        go.Wait(0);
        settings = OwnSettings();
    };
    const auto thread = Make(look, "before", 0, 1);
    thread->StartThread();
    EXPECT_TRUE(thread->Joinable());
    thread->SetName("the name after, cut");
    thread->SetPriority(0);
    EXPECT_TRUE(Throws([&] { thread->SetStackSize(0); },
                       "SetStackSize: Changing stacksize of an already created thread is not possible."));
    EXPECT_EQ(thread->GetName(), "the name after,");
    // All of 0 to 9 that there are.
    thread->SetCpuAffinity(0);
    EXPECT_EQ(thread->GetCpuAffinity(), 0U);
    go.Post();
    thread->Join();
    const std::string all = before.substr(before.find(", "));
    EXPECT_TRUE(settings == "the name after," + all || settings == "the name after,, normal 0, 10 from 0") << settings;
    if (!MayHaveRealTimePriority()) {
        GTEST_SKIP() << needsRealTime;
    }
    thread->StartThread();
    thread->SetCpuAffinity(1);
    thread->SetPriority(7);
    go.Post();
    thread->Join();
    EXPECT_EQ(settings, "the name after,, real-time 7, 1 from 0");
}

TEST_F(ThreadTest, EndedThreadCannotBeChangedAndTheCallerIsNotChangedInstead) {
    const std::string before = OwnSettings();
    const auto thread = Make(nothing);
    thread->StartThread();
    WaitUntil([&] { return !thread->Joinable(); });
    ExpectNoThread(*thread);
    thread->Cancel();
    thread->Join();
    // The change may come at any point of the thread's end.
    for (int i = 0; i < 300; ++i) {
        thread->StartThread();
        try {
            thread->ChangeCpuAffinity(1);
        } catch (const VeException&) {
        }
        // Started again without it, the thread would be on its own, and perhaps outlive the function that it runs.
        thread->Join();
    }
    EXPECT_EQ(OwnSettings(), before);
}

TEST_F(ThreadTest, RunsAgainAndSeveralAtATimeAndMayDeleteItsObject) {
    // Sanitizers start a thread of their own beside the first.
    std::thread([] {}).join();
    const std::ptrdiff_t threads = CountThreads();
    std::function<void()> run = [&] {
        go.Wait(0);
        done.Post();
    };
    auto thread = Make(run);
    thread->StartThread();
    thread->StartThread();
    // One of the two outlives the object, perhaps; neither touches it.
    go.Post();
    done.Wait(0);
    go.Post();
    thread.reset();
    done.Wait(0);

    std::function<void()> deleteItself = [&] {
        thread.reset();
        done.Post();
    };
    // Before the start has ended, or after.
    for (int i = 0; i < 200; ++i) {
        thread = Make(deleteItself, "deletes itself");
        thread->StartThread();
        done.Wait(0);
    }
    // A child of the next test's would have what they own, and not them.
    WaitUntil([&] { return CountThreads() <= threads; });
}

// Here of a thread and of a factory that has something to report.
TEST_F(ThreadTest, MayBeCancelledInADestructorThatWaits) {
    EXPECT_TRUE(SucceedsInChild([this] {
        std::atomic<bool> isDone{false};
        std::function<void()> destroy = [&] {
            auto inner = Make(nothing);
            inner->StartThread();
            factory->CreateMutex(false);
            pthread_cancel(pthread_self());
            inner.reset();
            ServiceFactory::DisposeServiceFactory();
            isDone = true;
            pthread_testcancel();
            isDone = false;
        };
        auto* const thread = Make(destroy).release();
        thread->StartThread();
        thread->Join();
        EXPECT_TRUE(isDone);
    }));
}

TEST_F(ThreadTest, ExceptionOfTheFunctionEndsTheProcess) {
    Child child([this] {
        std::function<void()> run = [] { throw VeException("from the function"); };
        const auto thread = Make(run);
        thread->StartThread();
        thread->Join();
        return 0;
    });
    EXPECT_EQ(child.Wait(), 128 + SIGABRT);
}

TEST_F(ThreadTest, IsJoinedOnceAndNotByItself) {
    const std::string failed = "Join: Joining Thread did not succeed, linux error code: ";
    std::unique_ptr<IThreadService> thread;
    std::function<void()> run = [&] {
        go.Wait(0);
        EXPECT_TRUE(Throws([&] { thread->Join(); }, failed + "Resource deadlock avoided"));
    };
    thread = Make(run);
    thread->StartThread();
    std::atomic<int> refusals{0};
    std::vector<std::thread> joiners(3);
    for (std::thread& joiner : joiners) {
        joiner = std::thread([&] {
            try {
                thread->Join();
            } catch (const VeException&) {
                ++refusals;
            }
        });
    }
    thread->ChangeName("still there");
    go.Post();
    for (std::thread& joiner : joiners) {
        joiner.join();
    }
    EXPECT_EQ(refusals, 2);
}

TEST_F(ThreadTest, InterruptionsEndNeitherASleepNorAStart) {
    {
        const FailingCall interrupted("nanosleep", -1, EINTR);
        EXPECT_TRUE(Takes(milliseconds(30), [] { ThreadServiceBase::Sleep(30); }));
    }
    {
        const FailingCall slept("nanosleep", 0, 0);
        ThreadServiceBase::Sleep(4294967295U);
    }
    const std::unique_ptr<IThreadService> thread(factory->CreateThread([](void*) -> void* { std::abort(); }));
    thread->SetThreadFunction([](void*) -> void* { return nullptr; });
    const FailingCall interrupted("sem_wait", -1, EINTR);
    thread->StartThread();
}

TEST_F(ThreadTest, IsNotCancelledBeforeTheStartHasEnded) {
    std::unique_ptr<IThreadService> thread;
    FailingCall naming("pthread_setname_np", [&] {
        thread->Cancel();
        pthread_testcancel();
    });
    naming.InAnyThread();
    std::atomic<bool> called{false};
    std::function<void()> run = [&] {
        called = true;
        for (;;) {
            pthread_testcancel();
        }
    };
    thread = Make(run, "name");
    thread->StartThread();
    thread->Join();
    EXPECT_TRUE(called);
}

TEST_F(ThreadTest, IsCancelledWhereverItWaits) {
    SemaphoreService open(1);
    const std::unique_ptr<IMutexService> mutex(factory->CreateMutex(false));
    const std::unique_ptr<ICondVariableService> condition(factory->CreateConditionVariable());
    std::function<void()> waitForTheEnd = [&] { done.Wait(0); };
    const auto sleeper = Make(waitForTheEnd);
    std::function<void()> waits[] = {
        [&] {
            const MutexGuard guard(*mutex);
            condition->Wait(*mutex);
        },
        [&] {
            const MutexGuard guard(*mutex);
            condition->WaitFor(*mutex, 1000000);
        },
        [&] { sleeper->Join(); },
#ifndef __SANITIZE_THREAD__  // It loses track of a thread that is cancelled in one of these.
        [] { ThreadServiceBase::Sleep(1000000); },
        [&] { go.Wait(0); },
        [&] { go.Wait(1000000); },
        // Also where it need not wait.
        [&] {
            for (;;) {
                open.Post();
                open.Wait(1000000);
            }
        },
        [] {
            ThreadServiceBase::SetAsynchronousCancelability(true);
            for (volatile bool forever = true; forever;) {
            }
        },
#endif
    };
    sleeper->StartThread();
    for (std::function<void()>& wait : waits) {
        const auto thread = Make(wait);
        thread->StartThread();
        thread->Cancel();
        thread->Join();
        // Whatever it held has been released.
        EXPECT_TRUE(mutex->TryLock());
        mutex->Unlock();
    }
    done.Post();
    sleeper->Join();
}

#ifndef __SANITIZE_THREAD__  // As above.
TEST_F(ThreadTest, CancellationAnywhereEndsWithTheFunction) {
    std::unique_ptr<IThreadService> thread;
    std::unique_ptr<FailingCall> end;
    std::function<void()> run = [&] {
        ThreadServiceBase::SetAsynchronousCancelability(true);
        // When the thread is about to say that it has ended.
        end = std::make_unique<FailingCall>("pthread_mutex_lock", [&] { thread->Cancel(); });
    };
    thread = Make(run);
    thread->StartThread();
    thread->Join();
#ifndef __arm__  // It cannot unwind from everywhere.
    // From another thread, when the request is still on its way.
    static std::atomic<bool> ends{false};
    const auto wait = [](void*) -> void* {
        ThreadServiceBase::SetAsynchronousCancelability(true);
        while (!ends) {
            sched_yield();
        }
        return nullptr;
    };
    for (int i = 0; i < 1000; ++i) {
        ends = false;
        thread.reset(factory->CreateThread(wait));
        thread->StartThread();
        ends = true;
        thread->Cancel();
        thread->Join();
    }
#endif
}
#endif

// Asked of the kernel, for a thread that never sleeps would show the same, but stands in the way of the sanitizers' own
// locks.
TEST_F(ThreadTest, InheritsThePriorityOfWhoWaitsForItsMutex) {
    if (!MayHaveRealTimePriority()) {
        GTEST_SKIP() << needsRealTime;
    }
    const std::unique_ptr<IMutexService> mutex(factory->CreateMutex(false));
    std::atomic<pid_t> holder{0};
    const auto holdersPriority = [&] { return ThreadStat(holder, 18); };
    std::function<void()> low = [&] {
        {
            const MutexGuard guard(*mutex);
            holder = gettid();
            go.Post();
            done.Wait(0);
        }
        EXPECT_EQ(holdersPriority(), "-11");
    };
    std::function<void()> high = [&] { const MutexGuard guard(*mutex); };
    const auto lowThread = Make(low, "low", 10);
    const auto highThread = Make(high, "high", 30);
    lowThread->StartThread();
    go.Wait(0);
    EXPECT_EQ(holdersPriority(), "-11");
    highThread->StartThread();
    WaitUntil([&] { return holdersPriority() == "-31"; });
    done.Post();
    lowThread->Join();
    highThread->Join();
}

}  // namespace
