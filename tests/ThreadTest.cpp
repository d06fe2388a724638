#include "support/Test.h"
#include "support/ThreadStat.h"

#include <sched.h>

namespace {

// Runs a std::function in a thread of the library.
void* Call(void* function) {
    (*static_cast<std::function<void()>*>(function))();
    return nullptr;
}

void* DoNothing(void*) { return nullptr; }

cpu_set_t OwnAffinity() {
    cpu_set_t set;
    EXPECT_EQ(pthread_getaffinity_np(pthread_self(), sizeof set, &set), 0);
    return set;
}

class ThreadTest : public FactoryTest {
protected:
    std::unique_ptr<IThreadService> Make(std::function<void()>& function, const BasicString& name = BasicString::Empty,
                                         unsigned int priority = 0, unsigned int mask = 0, unsigned int stackSize = 0) {
        return std::unique_ptr<IThreadService>(
            factory->CreateThread(&Call, &function, name, priority, mask, stackSize));
    }

    // Waits until the function has returned. Its thread is not joined.
    static void WaitForEnd(const IThreadService& thread) {
        while (thread.Joinable()) {
            std::this_thread::yield();
        }
    }

    // Nothing is asked of the C library for a thread that is not there.
    static void ExpectNoThread(IThreadService& thread) {
        EXPECT_TRUE(Throws<VeException>([&] { thread.ChangeName("x"); },
                                        "ChangeName: Could not change threadname, linux error code: No such process"));
        EXPECT_TRUE(
            Throws<VeException>([&] { thread.ChangePriority(0); },
                                "ChangePriority: Could not change priority, linux error code: No such process"));
        EXPECT_TRUE(
            Throws<VeException>([&] { thread.ChangeCpuAffinity(1); },
                                "ChangeCpuAffinity: Could not change cpu affinity, linux error code: No such process"));
    }

    static void ExpectNothingToJoin(IThreadService& thread) {
        EXPECT_FALSE(thread.Joinable());
        EXPECT_TRUE(Throws<VeException>([&] { thread.Join(); },
                                        "Join: Joining Thread did not succeed, linux error code: No such process"));
        EXPECT_TRUE(Throws<VeException>([&] { thread.Cancel(); },
                                        "Cancel: Canceling Thread did not succeed, linux error code: No such process"));
        ExpectNoThread(thread);
    }
};

TEST_F(ThreadTest, StoresSettingsUntilTheStart) {
    const std::unique_ptr<IThreadService> thread(factory->CreateThread(&DoNothing));
    EXPECT_EQ(thread->GetName(), "");
    thread->SetName("a name of more than 15");
    thread->SetPriority(1000);
    thread->SetCpuAffinity(0xffffffff);
    thread->SetStackSize(1);
    EXPECT_EQ(thread->GetName(), "a name of more ");
    EXPECT_EQ(thread->GetPriority(), 1000U);
    EXPECT_EQ(thread->GetCpuAffinity(), 0xffffffffU);
    EXPECT_EQ(thread->GetStackSize(), 1U);
    EXPECT_EQ(LiveObjects(), 1U);
    ExpectNothingToJoin(*thread);
}

TEST_F(ThreadTest, StartsWithItsSettings) {
    char name[16] = "";
    int policy = -1;
    sched_param parameters{};
    cpu_set_t processors;
    std::size_t stackSize = 0;
    unsigned int id = 0;
    std::function<void()> look = [&] {
        pthread_getname_np(pthread_self(), name, sizeof name);
        pthread_getschedparam(pthread_self(), &policy, &parameters);
        processors = OwnAffinity();
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stackSize);
        pthread_attr_destroy(&attributes);
        id = ThreadServiceBase::GetCurrentThreadId();
    };
    const auto thread = Make(look, "0123456789abcdefgh", 0, 1, 1U << 20U);
    thread->StartThread();
    EXPECT_EQ(LiveObjects(), 2U);
    thread->Join();
    EXPECT_STREQ(name, "0123456789abcde");
    EXPECT_EQ(policy, SCHED_OTHER);
    EXPECT_EQ(parameters.sched_priority, 0);
    EXPECT_EQ(CPU_COUNT(&processors), 1);
    EXPECT_TRUE(CPU_ISSET(0, &processors));
    EXPECT_GE(stackSize, 1U << 20U);
    EXPECT_NE(id, ThreadServiceBase::GetCurrentThreadId());
    ExpectNothingToJoin(*thread);

    // Scheduling is not inherited, in either direction.
    thread->SetThreadFunction(&Call);
    const sched_param realTime{10};
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &realTime) == EPERM) {
        GTEST_SKIP() << needsRealTime;
    }
    const sched_param normal{0};
    thread->StartThread();
    ASSERT_EQ(pthread_setschedparam(pthread_self(), SCHED_OTHER, &normal), 0);
    thread->Join();
    EXPECT_EQ(policy, SCHED_OTHER);
    const auto realTimeThread = Make(look, "", 20);
    realTimeThread->StartThread();
    realTimeThread->Join();
    EXPECT_EQ(policy, SCHED_FIFO);
    EXPECT_EQ(parameters.sched_priority, 20);
}

TEST_F(ThreadTest, ChangesTheRunningThread) {
    const std::unique_ptr<ISemaphoreService> go(factory->CreateSemaphore(0));
    char name[16] = "";
    cpu_set_t processors;
    int policy = -1;
    sched_param parameters{};
    std::function<void()> look = [&] {
        go->Wait(0);
        pthread_getname_np(pthread_self(), name, sizeof name);
        pthread_getschedparam(pthread_self(), &policy, &parameters);
        processors = OwnAffinity();
    };
    const auto thread = Make(look, "before", 0, 1);
    thread->StartThread();
    EXPECT_TRUE(thread->Joinable());
    thread->SetName("the name after, cut");
    thread->SetPriority(0);
    EXPECT_TRUE(Throws<VeException>([&] { thread->SetStackSize(0); },
                                    "SetStackSize: Changing stacksize of an already created thread is not possible."));
    ExpectFailures(Told::ByCode,
                   {{"pthread_setname_np", [&] { thread->SetName("x"); },
                     "ChangeName: Could not change threadname, linux error code: {}"},
                    {"pthread_setschedparam", [&] { thread->SetPriority(7); },
                     "ChangePriority: Could not change priority, linux error code: {}"},
                    {"pthread_setaffinity_np", [&] { thread->SetCpuAffinity(2); },
                     "ChangeCpuAffinity: Could not change cpu affinity, linux error code: {}"},
                    {"pthread_cancel", [&] { thread->Cancel(); },
                     "Cancel: Canceling Thread did not succeed, linux error code: {}"},
                    {"pthread_setcanceltype", [&] { ThreadServiceBase::SetAsynchronousCancelability(true); },
                     "SetAsynchronousCancelability: Could not change cancelability type, linux error code: {}"}});
    EXPECT_EQ(thread->GetName(), "the name after,");
    EXPECT_EQ(thread->GetPriority(), 0U);
    EXPECT_EQ(thread->GetCpuAffinity(), 1U);
    // All of 0 to 9 that there are.
    thread->SetCpuAffinity(0);
    go->Post();
    ExpectFailures(Told::ByCode, {{"pthread_join", [&] { thread->Join(); },
                                   "Join: Joining Thread did not succeed, linux error code: {}"}});
    thread->Join();
    EXPECT_STREQ(name, "the name after,");
    cpu_set_t own = OwnAffinity();
    EXPECT_TRUE(CPU_COUNT(&processors) == CPU_COUNT(&own) || CPU_COUNT(&processors) == 10);
    thread->StartThread();
    try {
        thread->SetPriority(7);
    } catch (const VeException&) {
        go->Post();
        GTEST_SKIP() << needsRealTime;
    }
    go->Post();
    thread->Join();
    EXPECT_EQ(policy, SCHED_FIFO);
    EXPECT_EQ(parameters.sched_priority, 7);
}

TEST_F(ThreadTest, FailedStepsOfAStartAreReported) {
    std::function<void()> nothing = [] {};
    const auto thread = Make(nothing, "name", 0, 1, 1U << 20U);
    const auto start = [&] { thread->StartThread(); };
    const struct {
        const char* function;
        const char* step;
    } table[] = {
        {"pthread_attr_getschedparam", "Could not get scheduling parameters"},
        {"pthread_attr_setschedpolicy", "Could not set scheduling policy"},
        {"pthread_attr_setschedparam", "Could not set scheduling parameters"},
        {"pthread_attr_setinheritsched", "Could not set schedinheritance"},
        {"pthread_attr_setstacksize", "Could not set stacksize"},
        {"pthread_attr_setaffinity_np", "Could not set cpu affinity"},
        {"pthread_create", "Could not create thread"},
    };
    const auto message = [](const char* step) {
        return std::string("StartThread: ") + step + ", linux error code: {}";
    };
    for (const auto& row : table) {
        ExpectFailures(Told::ByCode, {{row.function, start, message(row.step)}});
        EXPECT_EQ(LiveObjects(), 1U);
        ExpectNothingToJoin(*thread);
    }
    {
        const std::string noSemaphore = "StartThread: Could not allocate semIsStartedPtr, linux error code: Success";
        const FailingAllocation allocation(0);
        EXPECT_TRUE(Throws<VeException>(start, noSemaphore));
    }
    ExpectFailures(Told::ByCode, {{"pthread_attr_init", start, message("Could not initialize thread attribute")}});
    // The semaphore has stayed.
    EXPECT_EQ(LiveObjects(), 2U);
    ExpectFailures(Told::ByErrno,
                   {{"sem_init", start, "SemaphoreService: Unnamed semaphore could not be initiated: {}"}});
    {
        // The thread cannot name itself; its function is not called.
        std::atomic<bool> called{false};
        std::function<void()> call = [&] { called = true; };
        const auto unnamed = Make(call, "name");
        FailingCall naming("pthread_setname_np", EINVAL, EPERM);
        naming.InAnyThread();
        EXPECT_TRUE(Throws<VeException>([&] { unnamed->StartThread(); }, "StartThread: , linux error code: Success"));
        ExpectNothingToJoin(*unnamed);
        EXPECT_FALSE(called);
    }
    // Here the thread runs. It has no affinity, for which the attribute, not destroyed now, would hold memory.
    const auto unbound = Make(nothing);
    ExpectFailures(Told::ByCode, {{"pthread_attr_destroy", [&] { unbound->StartThread(); },
                                   message("Could not destroy thread attribute")}});
    EXPECT_EQ(LiveObjects(), 3U);
    unbound->Join();
    unbound->StartThread();
}

// Everyday cases, in which the C library leaves a handle behind.
TEST_F(ThreadTest, StartThatTheSystemRefusesLeavesNoThread) {
    std::function<void()> nothing = [] {};
    const auto noSuchProcessor = Make(nothing, "", 0, 1U << 31U);
    EXPECT_TRUE(Throws<VeException>([&] { noSuchProcessor->StartThread(); },
                                    "StartThread: Could not create thread, linux error code: Invalid argument"));
    ExpectNothingToJoin(*noSuchProcessor);
    noSuchProcessor->SetCpuAffinity(0);
    noSuchProcessor->StartThread();
    noSuchProcessor->Join();

    const auto noSuchPriority = Make(nothing, "", 1000);
    EXPECT_TRUE(
        Throws<VeException>([&] { noSuchPriority->StartThread(); },
                            "StartThread: Could not set scheduling parameters, linux error code: Invalid argument"));
    ExpectNothingToJoin(*noSuchPriority);
}

TEST_F(ThreadTest, EndedThreadCannotBeChangedAndTheCallerIsNotChangedInstead) {
    const cpu_set_t before = OwnAffinity();
    const std::unique_ptr<IThreadService> thread(factory->CreateThread(&DoNothing));
    thread->StartThread();
    WaitForEnd(*thread);
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
    }
    const cpu_set_t after = OwnAffinity();
    EXPECT_TRUE(CPU_EQUAL(&before, &after));
}

TEST_F(ThreadTest, RunsAgainAndSeveralAtATime) {
    const std::unique_ptr<ISemaphoreService> go(factory->CreateSemaphore(0));
    const std::unique_ptr<ISemaphoreService> done(factory->CreateSemaphore(0));
    std::function<void()> run = [&] {
        go->Wait(0);
        done->Post();
    };
    auto thread = Make(run);
    thread->StartThread();
    thread->StartThread();
    EXPECT_EQ(LiveObjects(), 4U);
    // One of the two outlives the object, perhaps; neither touches it.
    go->Post();
    done->Wait(0);
    go->Post();
    thread.reset();
    done->Wait(0);
}

TEST_F(ThreadTest, MayDeleteItsOwnObjectOnceItIsStarted) {
    const std::unique_ptr<ISemaphoreService> go(factory->CreateSemaphore(0));
    const std::unique_ptr<ISemaphoreService> done(factory->CreateSemaphore(0));
    IThreadService* thread = nullptr;
    std::function<void()> run = [&] {
        go->Wait(0);
        delete thread;
        done->Post();
    };
    thread = Make(run, "deletes itself").release();
    thread->StartThread();
    go->Post();
    done->Wait(0);
}

// Here of a thread and of a factory that has something to report.
TEST_F(ThreadTest, MayBeCancelledInADestructorThatWaits) {
    Child child([this] {
        std::atomic<bool> done{false};
        std::function<void()> destroy = [&] {
            std::function<void()> nothing = [] {};
            auto inner = Make(nothing);
            inner->StartThread();
            factory->CreateMutex(false);
            pthread_cancel(pthread_self());
            inner.reset();
            ServiceFactory::DisposeServiceFactory();
            done = true;
            pthread_testcancel();
            done = false;
        };
        auto* const thread = Make(destroy).release();
        thread->StartThread();
        thread->Join();
        return done ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0);
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

TEST_F(ThreadTest, CannotJoinItself) {
    IThreadService* self = nullptr;
    bool refused = false;
    std::function<void()> run = [&] {
        refused = static_cast<bool>(
            Throws<VeException>([&] { self->Join(); },
                                "Join: Joining Thread did not succeed, linux error code: Resource deadlock avoided"));
    };
    const auto thread = Make(run);
    self = thread.get();
    thread->StartThread();
    thread->Join();
    EXPECT_TRUE(refused);
}

TEST_F(ThreadTest, IsJoinedOnce) {
    const std::unique_ptr<ISemaphoreService> go(factory->CreateSemaphore(0));
    std::function<void()> run = [&] { go->Wait(0); };
    const auto thread = Make(run);
    thread->StartThread();
    std::atomic<int> joins{0};
    std::atomic<int> refusals{0};
    std::vector<std::thread> joiners(3);
    for (std::thread& joiner : joiners) {
        joiner = std::thread([&] {
            try {
                thread->Join();
                ++joins;
            } catch (const VeException&) {
                ++refusals;
            }
        });
    }
    thread->ChangeName("still there");
    go->Post();
    for (std::thread& joiner : joiners) {
        joiner.join();
    }
    EXPECT_EQ(joins, 1);
    EXPECT_EQ(refusals, 2);
}

TEST_F(ThreadTest, SleepsThroughInterruptions) {
    {
        const FailingCall interrupted("nanosleep", -1, EINTR);
        const auto start = std::chrono::steady_clock::now();
        ThreadServiceBase::Sleep(30);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
    }
    const FailingCall call("nanosleep", 0, 0);
    ThreadServiceBase::Sleep(4294967295U);
}

std::atomic<int> signals{0};

TEST_F(ThreadTest, StartGoesOnWhenASignalInterruptsIt) {
    struct sigaction action {};
    action.sa_handler = [](int) { ++signals; };
    struct sigaction previous;
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    const pthread_t starter = pthread_self();
    const pid_t starterId = gettid();
    {
        // The new thread interrupts the starter's wait before it goes on.
        FailingCall naming("pthread_setname_np", [=] {
            while (ThreadStat(starterId, 3) != "S") {
                std::this_thread::yield();
            }
            pthread_kill(starter, SIGUSR1);
            while (signals == 0 || ThreadStat(starterId, 3) != "S") {
                std::this_thread::yield();
            }
        });
        naming.InAnyThread();
        std::function<void()> nothing = [] {};
        const auto thread = Make(nothing, "name");
        thread->StartThread();
        thread->Join();
    }
    EXPECT_EQ(signals, 1);
    ASSERT_EQ(sigaction(SIGUSR1, &previous, nullptr), 0);
}

TEST_F(ThreadTest, IsNotCancelledBeforeTheStartHasEnded) {
    IThreadService* cancelled = nullptr;
    FailingCall naming("pthread_setname_np", [&] {
        cancelled->Cancel();
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
    const auto thread = Make(run, "name");
    cancelled = thread.get();
    thread->StartThread();
    thread->Join();
    EXPECT_TRUE(called);
}

TEST_F(ThreadTest, IsCancelledWhereverItWaits) {
    const std::unique_ptr<ISemaphoreService> semaphore(factory->CreateSemaphore(0));
    const std::unique_ptr<ISemaphoreService> end(factory->CreateSemaphore(0));
    const std::unique_ptr<IMutexService> mutex(factory->CreateMutex(false));
    const std::unique_ptr<ICondVariableService> condition(factory->CreateConditionVariable());
    std::function<void()> waitForTheEnd = [&] { end->Wait(0); };
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
        [&] { semaphore->Wait(0); },
        [&] { semaphore->Wait(1000000); },
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
    end->Post();
    sleeper->Join();
}

// On one processor the low one holds the mutex, the middle one never sleeps, and then the high one waits for the mutex:
// without inheritance the low one would never go on.
TEST_F(ThreadTest, LowPriorityThreadGetsThroughWhenAHighOneWaits) {
    const std::unique_ptr<IMutexService> mutex(factory->CreateMutex(false));
    const std::unique_ptr<ISemaphoreService> held(factory->CreateSemaphore(0));
    std::atomic<bool> middleSpins{false};
    std::atomic<bool> highIsThrough{false};
    std::function<void()> low = [&] {
        const MutexGuard guard(*mutex);
        held->Post();
        while (!middleSpins) {
        }
    };
    std::function<void()> middle = [&] {
        middleSpins = true;
        while (!highIsThrough) {
        }
    };
    std::function<void()> high = [&] {
        const MutexGuard guard(*mutex);
        highIsThrough = true;
    };
    const auto lowThread = Make(low, "low", 10, 1);
    const auto middleThread = Make(middle, "middle", 20, 1);
    const auto highThread = Make(high, "high", 30, 1);
    try {
        lowThread->StartThread();
    } catch (const VeException& exception) {
        GTEST_SKIP() << needsRealTime << ": " << exception.what();
    }
    held->Wait(0);
    middleThread->StartThread();
    highThread->StartThread();
    lowThread->Join();
    middleThread->Join();
    highThread->Join();
}

}  // namespace
