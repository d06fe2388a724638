#include "support/CallerTest.h"

namespace {

class ThreadTest : public CallerTest {
protected:
    std::unique_ptr<IThreadService> Make(std::function<void()> function, const BasicString& name = BasicString::Empty,
                                         unsigned int mask = 0, unsigned int stackSize = 0) {
        return Own(factory->CreateThread(&Call, Keep(std::move(function)), name, 0, mask, stackSize));
    }

    std::unique_ptr<IThreadService> Start(std::function<void()> function) {
        auto thread = Make(std::move(function));
        thread->StartThread();
        return thread;
    }

    void ExpectNothingToJoin(IThreadService& thread) const {
        EXPECT_FALSE(thread.Joinable());
        EXPECT_TRUE(ComesTo([&] { thread.Join(); }, join + noProcess));
        EXPECT_TRUE(ComesTo([&] { thread.Cancel(); }, cancel + noProcess));
        EXPECT_TRUE(ComesTo([&] { thread.ChangeName("x"); }, changeName + noProcess));
    }

    const std::string start = "VeException: StartThread: Could not ";
    const std::string changeName = "VeException: ChangeName: Could not change threadname";
    const std::string join = "VeException: Join: Joining Thread did not succeed";
    const std::string cancel = "VeException: Cancel: Canceling Thread did not succeed";
    const std::string invalid = ", linux error code: Invalid argument";
    const std::string noProcess = ", linux error code: No such process";
};

void CancelSelf() {
    pthread_cancel(pthread_self());
    pthread_testcancel();
}

TEST_F(ThreadTest, RunsWithItsSettingsAndWithThoseThatAreChanged) {
    EXPECT_EXIT(Start([] { throw VeException("leaves"); }), testing::KilledBySignal(SIGABRT), "leaves");
    // Without a name of its own it has that of the thread that starts it.
    Start([&] { settings = OwnSettings(); });
    EXPECT_EQ(settings, OwnSettings());
    const auto startWithStack = [&] { Make([] {}, "", 0, 1U << 24U)->StartThread(); };
    EXPECT_EQ(CallsOf("pthread_attr_setstacksize", startWithStack).at(0)[1], 1 << 24);
    const auto other = Own(factory->CreateThread([](void*) -> void* { std::abort(); }));
    // It is given null.
    other->SetThreadFunction([](void* none) -> void* { return none == nullptr ? none : throw VeException("given"); });
    other->StartThread();
    EXPECT_EQ(ThreadServiceBase::GetCurrentThreadId(), static_cast<unsigned int>(pthread_self()));
    const auto thread = Make(postAndWait, "0123456789abcdefgh", 1);
    ExpectToRunWithItsSettings(*thread, &IThreadService::StartThread, &IThreadService::Join);
}

TEST_F(ThreadTest, IsBoundToTheProcessorsOfTheMask) {
    std::uint64_t processors = 0;
    const Interposition affinity("pthread_setaffinity_np", [&](const auto& arguments) {
        processors = *Interposition::Pointer<const std::uint64_t>(arguments[2]);
        return 0;
    });
    const auto thread = Start([&] { go.Wait(0); });
    thread->SetCpuAffinity(0x80000001);
    EXPECT_EQ(processors, 0x80000001);
    // Unlike at the start, processors 0 to 9.
    thread->SetCpuAffinity(0);
    EXPECT_EQ(processors, 0x3FFU);
    go.Post();
}

TEST_F(ThreadTest, FailuresAreReported) {
    const auto startAThread = [&] { Make([] {}, "name", 1, 1U << 20U)->StartThread(); };
    const auto running = Start([&] { go.Wait(0); });
    ExpectFailures({
        {"sem_init", startAThread,
         "VeException: SemaphoreService: Unnamed semaphore could not be initiated: Permission denied"},
        // Here the semaphore of the start stays.
        {"pthread_attr_init", [&] { running->StartThread(); }, start + "initialize thread attribute" + invalid},
        {"pthread_attr_getschedparam", startAThread, start + "get scheduling parameters" + invalid},
        {"pthread_attr_setschedpolicy", startAThread, start + "set scheduling policy" + invalid},
        {"pthread_attr_setschedparam", startAThread, start + "set scheduling parameters" + invalid},
        {"pthread_attr_setinheritsched", startAThread, start + "set schedinheritance" + invalid},
        {"pthread_attr_setstacksize", startAThread, start + "set stacksize" + invalid},
        {"pthread_attr_setaffinity_np", startAThread, start + "set cpu affinity" + invalid},
        {"pthread_attr_destroy", [&] { Start([] {}); }, start + "destroy thread attribute" + invalid},
        {"sem_wait", startAThread, "VeException: WaitInfinite: Semaphore could not be waited for: Permission denied"},
        {"sem_wait", startAThread, "done", 0, EINTR},
        {"pthread_setname_np", [&] { running->SetName("x"); }, changeName + invalid},
        {"pthread_setschedparam", [&] { running->SetPriority(7); },
         "VeException: ChangePriority: Could not change priority" + invalid},
        {"pthread_setaffinity_np", [&] { running->SetCpuAffinity(1); },
         "VeException: ChangeCpuAffinity: Could not change cpu affinity" + invalid},
        {"pthread_cancel", [&] { running->Cancel(); }, cancel + invalid},
        {"pthread_setcanceltype", [] { ThreadServiceBase::SetAsynchronousCancelability(false); },
         "VeException: SetAsynchronousCancelability: Could not change cancelability type" + invalid},
    });
    // What was refused is not kept.
    EXPECT_EQ(running->GetName(), "");
    EXPECT_EQ(running->GetPriority() + running->GetCpuAffinity(), 0U);
    const auto startWithoutMemory = [&] {
        const FailingAllocation none(0);
        running->StartThread();
    };
    EXPECT_TRUE(ComesTo(startWithoutMemory, start + "allocate semIsStartedPtr, linux error code: Success"));
    go.Post();
    ExpectFailures({{"pthread_join", [&] { running->Join(); }, join + invalid}});
    running->Join();
}

TEST_F(ThreadTest, NothingIsAskedOfAThreadThatIsNotThere) {
    int calls = 0;
    const auto thread = Make([&] { ++calls; }, "name");
    const std::uint32_t objects = LiveObjects();
    ExpectNothingToJoin(*thread);
    // The C library leaves a handle behind, and nothing else stays.
    long blocks = 0;
    for (int i = 0; i < 2; ++i) {
        blocks = LiveAllocations();
        const FailingCall creation("pthread_create");
        EXPECT_TRUE(ComesTo([&] { thread->StartThread(); }, start + "create thread" + invalid));
    }
    EXPECT_EQ(LiveAllocations(), blocks);
    ExpectNothingToJoin(*thread);
    {
        const Interposition naming("pthread_setname_np", [](const auto& /*arguments*/) { return ERANGE; });
        EXPECT_TRUE(ComesTo([&] { thread->StartThread(); }, "VeException: StartThread: , linux error code: Success"));
    }
    EXPECT_EQ(LiveObjects(), objects);
    ExpectNothingToJoin(*thread);
    // It has not been started yet.
    thread->SetStackSize(1U << 20U);
    thread->StartThread();
    WaitUntil([&] { return !thread->Joinable(); });
    EXPECT_TRUE(ComesTo([&] { thread->ChangeName("x"); }, changeName + noProcess));
    thread->Cancel();
    thread->Join();
    ExpectNothingToJoin(*thread);
    EXPECT_TRUE(ComesTo([&] { thread->SetStackSize(0); },
                        "VeException: SetStackSize: Changing stacksize of an already created thread is not possible."));
    EXPECT_EQ(calls, 1);
}

TEST_F(ThreadTest, KeyOfTheEndIsMadeByTheFirstStartThatCan) {
    if (IsEmulated()) {
        GTEST_SKIP() << "needs to execute itself anew, which the emulator does not do for it";
    }
    // For this process may have started threads.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto test = [this] {
        const auto startAThread = [this] { Start([] {})->Join(); };
        ExpectFailures({{"pthread_key_create", startAThread, start + "create thread" + invalid}});
        const auto startTwo = [&] { CountCallsOfTwo("pthread_key_create", startAThread); };
        EXPECT_EQ(CallsOf("pthread_key_delete", startTwo).size(), 1U);
        _exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(test(), testing::ExitedWithCode(0), "");
}

TEST_F(ThreadTest, RunsAgainAndSeveralAtATimeAndMayDeleteItsObject) {
    const auto detached = CallsOf("pthread_detach", [&] {
        auto thread = Start([&] { go.Wait(0); });
        std::thread joiner = Sleeping([&] { EXPECT_TRUE(ComesTo([&] { thread->Join(); }, join + noProcess)); });
        thread->StartThread();
        joiner.join();
        // One of the two outlives the object, perhaps; neither touches it.
        go.Post();
        go.Post();
        thread.reset();

        // Before the start has ended, or after.
        for (int i = 0; i < 200; ++i) {
            thread = Make([&] {
                thread.reset();
                called.Post();
            });
            thread->StartThread();
            called.Wait(0);
        }
    });
    // Otherwise their stacks would stay.
    EXPECT_EQ(detached.size(), 1U + 200U);
}

TEST_F(ThreadTest, IsJoinedOnceAndNotByItself) {
    std::unique_ptr<IThreadService> thread = Make([&] {
        go.Wait(0);
        EXPECT_TRUE(ComesTo([&] { thread->Join(); }, join + ", linux error code: Resource deadlock avoided"));
    });
    thread->StartThread();
    std::atomic<int> joined{0};
    const auto tryToJoin = [&] { joined += ComesTo([&] { thread->Join(); }, "done") ? 1 : 0; };
    std::thread first = Sleeping(tryToJoin);
    std::thread second = Sleeping(tryToJoin);
    thread->ChangeName("still there");
    go.Post();
    first.join();
    second.join();
    EXPECT_EQ(joined, 1);
}

TEST_F(ThreadTest, SleepGoesOnAfterAnInterruption) {
    std::string slept;
    const Interposition sleep("nanosleep", [&](const auto& arguments) {
        const timespec time = *Interposition::Pointer<const timespec>(arguments[0]);
        slept += std::to_string(time.tv_sec) + " s " + std::to_string(time.tv_nsec) + "; ";
        *Interposition::Pointer<timespec>(arguments[1]) = {1, 2};
        return time.tv_sec == 1 ? 0 : -1;
    });
    ThreadServiceBase::Sleep(4294967295U);
    EXPECT_EQ(slept, "4294967 s 295000000; 1 s 2; ");
}

TEST_F(ThreadTest, IsCancelledWhereItWaitsAndAnywhereIfItAllowsThat) {
    auto thread = Make([&] { go.Wait(0); });
    EXPECT_TRUE(HasNoCancellationPoint([&] { thread->StartThread(); }));
    EXPECT_FALSE(HasNoCancellationPoint([&] { thread->Join(); }));
    go.Post();
    WaitUntil([&] { return !thread->Joinable(); });
    // Those who join at the same time would wait for ever.
    const Interposition joining("pthread_join", [&](const auto& arguments) {
        pthread_testcancel();
        return joining.CallThrough(arguments);
    });
    EXPECT_TRUE(HasNoCancellationPoint([&] {
        ThreadServiceBase::SetAsynchronousCancelability(false);
        thread->Join();
    }));
    thread->StartThread();
    const Interposition waiting("pthread_cond_wait", [&](const auto& arguments) {
        pthread_testcancel();
        go.Post();
        return waiting.CallThrough(arguments);
    });
    EXPECT_TRUE(HasNoCancellationPoint([&] { thread.reset(); }));
#ifndef __SANITIZE_THREAD__  // It loses track of a thread that is cancelled in one of these.
    EXPECT_FALSE(HasNoCancellationPoint([] { ThreadServiceBase::Sleep(0); }));
    const auto computing = Start([] {
        ThreadServiceBase::SetAsynchronousCancelability(true);
        for (volatile bool forever = true; forever;) {
        }
    });
    computing->Cancel();
    WaitUntil([&] { return CountThreads() <= threads; });
    EXPECT_TRUE(computing->Joinable());
    // Otherwise its stack would stay.
    computing->SetThreadFunction([](void* argument) { return argument; });
    EXPECT_EQ(CallsOf("pthread_detach", [&] { computing->StartThread(); }).size(), 1U);
#endif
}

TEST_F(ThreadTest, IsCancelledOnlyInItsFunctionAndIfItsEndIsTold) {
    bool hasEnded = false;
    const auto run = [&] {
        CancelSelf();
        hasEnded = true;
    };
    {
        const Interposition naming("pthread_setname_np", [](const auto& /*arguments*/) {
            CancelSelf();
            return 0;
        });
        Make(run, "name")->StartThread();
    }
    EXPECT_FALSE(hasEnded);
    const Interposition unset("pthread_setspecific", [](const auto& /*arguments*/) { return ENOMEM; });
    Start(run);
    EXPECT_TRUE(hasEnded);
}

TEST_F(ThreadTest, IsNotCancelledOnceItsFunctionHasReturned) {
    static thread_local bool hasReturned = false;
    const Interposition disabling("pthread_setcancelstate", [&](const auto& arguments) {
        if (hasReturned) {
            pthread_cancel(pthread_self());
        }
        return disabling.CallThrough(arguments);
    });
    Start([] {
        thread_local const std::shared_ptr<void> atEnd(nullptr, [](void*) { CancelSelf(); });
        ThreadServiceBase::SetAsynchronousCancelability(true);
        hasReturned = true;
    });
}

}  // namespace
