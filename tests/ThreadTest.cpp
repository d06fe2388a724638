#include "support/Test.h"

#include <ucontext.h>

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
        return Own(factory->CreateThread(&Call, &function, name, priority, mask, 0));
    }

    // Nothing is asked of the C library for a thread that is not there.
    static void ExpectNoThread(IThreadService& thread) {
        const std::string noThread = ", linux error code: No such process";
        EXPECT_TRUE(ComesTo([&] { thread.ChangeName("x"); },
                            "VeException: ChangeName: Could not change threadname" + noThread));
        EXPECT_TRUE(ComesTo([&] { thread.ChangePriority(0); },
                            "VeException: ChangePriority: Could not change priority" + noThread));
        EXPECT_TRUE(ComesTo([&] { thread.ChangeCpuAffinity(1); },
                            "VeException: ChangeCpuAffinity: Could not change cpu affinity" + noThread));
    }

    static void ExpectNothingToJoin(IThreadService& thread) {
        const std::string noThread = " Thread did not succeed, linux error code: No such process";
        EXPECT_FALSE(thread.Joinable());
        EXPECT_TRUE(ComesTo([&] { thread.Join(); }, "VeException: Join: Joining" + noThread));
        EXPECT_TRUE(ComesTo([&] { thread.Cancel(); }, "VeException: Cancel: Canceling" + noThread));
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
    EXPECT_TRUE(
        ComesTo([&] { thread->StartThread(); },
                "VeException: StartThread: Could not set scheduling parameters, linux error code: Invalid argument"));
    ExpectNothingToJoin(*thread);
    thread->SetPriority(0);
    EXPECT_TRUE(ComesTo([&] { thread->StartThread(); },
                        "VeException: StartThread: Could not create thread, linux error code: Invalid argument"));
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

TEST_F(ThreadTest, FailuresAreReported) {
    const auto start = [&] {
        const auto thread = Make(nothing, "name", 0, 1);
        thread->SetStackSize(1U << 20U);
        thread->StartThread();
    };
    const std::string invalid = ", linux error code: Invalid argument";
    const std::string couldNot = "VeException: StartThread: Could not ";
    std::function<void()> wait = [&] { go.Wait(0); };
    const auto running = Make(wait);
    running->StartThread();
    ExpectFailures({
        {"sem_init", start,
         "VeException: SemaphoreService: Unnamed semaphore could not be initiated: Permission denied"},
        {"pthread_attr_init", start, couldNot + "initialize thread attribute" + invalid},
        {"pthread_attr_getschedparam", start, couldNot + "get scheduling parameters" + invalid},
        {"pthread_attr_setschedpolicy", start, couldNot + "set scheduling policy" + invalid},
        {"pthread_attr_setschedparam", start, couldNot + "set scheduling parameters" + invalid},
        {"pthread_attr_setinheritsched", start, couldNot + "set schedinheritance" + invalid},
        {"pthread_attr_setstacksize", start, couldNot + "set stacksize" + invalid},
        {"pthread_attr_setaffinity_np", start, couldNot + "set cpu affinity" + invalid},
        {"pthread_create", start, couldNot + "create thread" + invalid},
        {"pthread_attr_destroy", [&] { Make(nothing)->StartThread(); },
         couldNot + "destroy thread attribute" + invalid},
        {"sem_wait", start, "VeException: WaitInfinite: Semaphore could not be waited for: Permission denied"},
        {"pthread_setname_np", [&] { running->ChangeName("x"); },
         "VeException: ChangeName: Could not change threadname" + invalid},
        {"pthread_setschedparam", [&] { running->ChangePriority(0); },
         "VeException: ChangePriority: Could not change priority" + invalid},
        {"pthread_setaffinity_np", [&] { running->ChangeCpuAffinity(1); },
         "VeException: ChangeCpuAffinity: Could not change cpu affinity" + invalid},
        {"pthread_cancel", [&] { running->Cancel(); },
         "VeException: Cancel: Canceling Thread did not succeed" + invalid},
        {"pthread_setcanceltype", [] { ThreadServiceBase::SetAsynchronousCancelability(false); },
         "VeException: SetAsynchronousCancelability: Could not change cancelability type" + invalid},
    });
    go.Post();
    ExpectFailures(
        {{"pthread_join", [&] { running->Join(); }, "VeException: Join: Joining Thread did not succeed" + invalid}});
    const auto startWithoutMemory = [&] {
        const FailingAllocation none(0);
        running->StartThread();
    };
    EXPECT_TRUE(ComesTo(startWithoutMemory, couldNot + "allocate semIsStartedPtr, linux error code: Success"));
}

TEST_F(ThreadTest, ShortageOfKeysIsNotRemembered) {
    if (IsEmulated()) {
        GTEST_SKIP() << "needs to execute itself anew, which the emulator does not do for it";
    }
    // For this process may have started threads.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto start = [this] {
        std::vector<pthread_key_t> keys(1);
        while (pthread_key_create(&keys.back(), nullptr) == 0) {
            keys.emplace_back();
        }
        const auto thread = Make(nothing);
        const testing::AssertionResult fails = ComesTo([&] { thread->StartThread(); },
                                                       "VeException: StartThread: Could not create thread, linux error "
                                                       "code: Resource temporarily unavailable");
        pthread_key_delete(keys.front());
        thread->StartThread();
        thread->Join();
        _exit(fails ? 0 : 1);
    };
    EXPECT_EXIT(start(), testing::ExitedWithCode(0), "");
}

TEST_F(ThreadTest, ThreadThatCannotNameItselfIsGone) {
    const auto thread = Make(nothing, "name");
    const Interposition naming("pthread_setname_np", [](const auto& /*arguments*/) { return ERANGE; });
    EXPECT_TRUE(ComesTo([&] { thread->StartThread(); }, "VeException: StartThread: , linux error code: Success"));
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
    EXPECT_TRUE(ComesTo([&] { thread->SetStackSize(0); },
                        "VeException: SetStackSize: Changing stacksize of an already created thread is not possible."));
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

TEST_F(ThreadTest, MayBeCancelledInADestructorThatWaits) {
    std::atomic<pid_t> destroyer{0};
    bool isDone = false;
    std::function<void()> wait = [&] { go.Wait(0); };
    std::function<void()> destroy = [&] {
        auto inner = Make(wait);
        inner->StartThread();
        destroyer = gettid();
        inner.reset();
        isDone = true;
        pthread_testcancel();
        isDone = false;
    };
    const auto thread = Make(destroy);
    thread->StartThread();
    WaitUntil([&] { return destroyer != 0 && ThreadStat(destroyer, 3) == "S"; });
    thread->Cancel();
    go.Post();
    thread->Join();
    EXPECT_TRUE(isDone);
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
    const std::string failed = "VeException: Join: Joining Thread did not succeed, linux error code: ";
    std::unique_ptr<IThreadService> thread;
    std::function<void()> run = [&] {
        go.Wait(0);
        EXPECT_TRUE(ComesTo([&] { thread->Join(); }, failed + "Resource deadlock avoided"));
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
        const FailingCall interrupted("nanosleep", 0, EINTR);
        EXPECT_TRUE(Takes(milliseconds(30), [] { ThreadServiceBase::Sleep(30); }));
    }
    {
        const Interposition slept("nanosleep", [](const auto& arguments) {
            EXPECT_EQ(Interposition::Pointer<const timespec>(arguments[0])->tv_sec, 4294967);
            return 0;
        });
        ThreadServiceBase::Sleep(4294967295U);
    }
    const std::unique_ptr<IThreadService> thread(factory->CreateThread([](void*) -> void* { std::abort(); }));
    thread->SetThreadFunction([](void*) -> void* { return nullptr; });
    const FailingCall interrupted("sem_wait", 0, EINTR);
    thread->StartThread();
}

TEST_F(ThreadTest, IsNotCancelledBeforeTheStartHasEnded) {
    std::unique_ptr<IThreadService> thread;
    const Interposition naming("pthread_setname_np", [&](const auto& arguments) {
        thread->Cancel();
        pthread_testcancel();
        return naming.CallThrough(arguments);
    });
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
    const auto mutex = Own(factory->CreateMutex(false));
    const auto condition = Own(factory->CreateConditionVariable());
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

#if !defined(__SANITIZE_THREAD__) && !defined(__arm__)  // As above; and ARM cannot unwind from everywhere.
TEST_F(ThreadTest, CancellationAnywhereEndsWithTheFunction) {
    // From another thread, when the request is still on its way.
    static std::atomic<bool> ends{false};
    const auto wait = [](void* /*argument*/) -> void* {
        ThreadServiceBase::SetAsynchronousCancelability(true);
        while (!ends) {
            sched_yield();
        }
        return nullptr;
    };
    for (int i = 0; i < 1000; ++i) {
        ends = false;
        const auto thread = Own(factory->CreateThread(wait));
        thread->StartThread();
        ends = true;
        thread->Cancel();
        thread->Join();
    }
}
#endif

#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
std::atomic<int> instructionsLeft{0};
std::atomic<bool> isTooLate{false};

// Comes after each instruction of the thread, by the trap flag.
void CountInstruction(int /*signal*/, siginfo_t* /*info*/, void* context) {
    if (--instructionsLeft == 0) {
        static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~0x100LL;
        // Returns only if the thread may no longer be cancelled anywhere.
        pthread_cancel(pthread_self());
        isTooLate = true;
    }
}

TEST_F(ThreadTest, MayBeCancelledAtEachInstructionAfterItsFunction) {
    const auto function = [](void* /*argument*/) -> void* {
        ThreadServiceBase::SetAsynchronousCancelability(true);
        asm volatile("pushfq; orl $0x100, (%%rsp); popfq" ::: "memory", "cc");
        return nullptr;
    };
    struct sigaction action {};
    action.sa_sigaction = CountInstruction;
    action.sa_flags = SA_SIGINFO;
    int code = 0;
    for (int i = 1; code == 0; ++i) {
        code = Child([&] {
                   instructionsLeft = i;
                   sigaction(SIGTRAP, &action, nullptr);
                   const auto thread = Own(factory->CreateThread(function));
                   thread->StartThread();
                   thread->Join();
                   return isTooLate ? 1 : 0;
               }).Wait();
    }
    EXPECT_EQ(code, 1);
}
#endif

// Asked of the kernel, for a thread that never sleeps would show the same, but stands in the way of the sanitizers' own
// locks.
TEST_F(ThreadTest, InheritsThePriorityOfWhoWaitsForItsMutex) {
    if (!MayHaveRealTimePriority()) {
        GTEST_SKIP() << needsRealTime;
    }
    const auto mutex = Own(factory->CreateMutex(false));
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
