#include "support/Test.h"

#include <fcntl.h>
#include <sys/prctl.h>

#include <list>

namespace {

// A wait that lasts as long is a hang.
constexpr unsigned int oneHour = 3600000000;

class TimerTest : public FactoryTest {
protected:
    // A timer whose handler is a std::function.
    std::unique_ptr<ITimerService> Make(unsigned int period, std::function<void()> handler,
                                        const BasicString& name = BasicString::Empty, unsigned int mask = 0) {
        handlers.push_back(std::move(handler));
        const auto call = [](void* function) { (*static_cast<std::function<void()>*>(function))(); };
        return Own(factory->CreateTimer(period, name, 0, &handlers.back(), call, mask));
    }

    static void ExpectStarted(ITimerService& timer) {
        EXPECT_TRUE(ComesTo([&] { timer.Start(); }, "VeException: Start: Timer was started yet!"));
    }

    static std::string SetHandler(ITimerService& timer) {
        return Operation([&] { dynamic_cast<TimerServiceBase&>(timer).SetHandler(nullptr, nullptr); }).Outcome();
    }

    SemaphoreService called{0};
    SemaphoreService go{0};
    const std::function<void()> post = [this] { called.Post(); };
    const std::function<void()> postAndWait = [this] {
        called.Post();
        go.Wait(0);
    };
    std::list<std::function<void()>> handlers;
};

TEST_F(TimerTest, CallsAtOnceAndThenAtDeadlinesThatDoNotDrift) {
    const Interposition clock("clock_gettime", [](const auto& arguments) {
        EXPECT_EQ(arguments[0], CLOCK_MONOTONIC);
        *Interposition::Pointer<timespec>(arguments[1]) = {7, 999000000};
        return 0;
    });
    for (const long long period : {0U, 1000U, 1000000U, 2500000U, 4294967295U}) {
        std::vector<long long> deadlines;
        // The first wait ends without reason, the second in time, and the third is ended by the stop.
        const Interposition wait("pthread_cond_timedwait", [&](const auto& arguments) {
            const auto& deadline = *Interposition::Pointer<const timespec>(arguments[2]);
            EXPECT_LE(deadline.tv_nsec, 999999999);
            deadlines.push_back((deadline.tv_sec - 7) * 1000000000LL + deadline.tv_nsec - 999000000);
            if (deadlines.size() < 3) {
                return deadlines.size() == 1 ? 0 : ETIMEDOUT;
            }
            called.Post();
            return pthread_cond_wait(Interposition::Pointer<pthread_cond_t>(arguments[0]),
                                     Interposition::Pointer<pthread_mutex_t>(arguments[1]));
        });
        std::vector<std::size_t> waitsBeforeCalls;
        const auto timer =
            Make(static_cast<unsigned int>(period), [&] { waitsBeforeCalls.push_back(deadlines.size()); });
        timer->Start();
        called.Wait(0);
        timer->Stop();
        EXPECT_EQ(deadlines, (std::vector{period * 1000, period * 1000, period * 2000}));
        EXPECT_EQ(waitsBeforeCalls, (std::vector<std::size_t>{0, 2}));
    }
}

TEST_F(TimerTest, StartsAgainWithThePeriodOfTheStart) {
    const auto timer = Make(oneHour, post);
    timer->Stop();
    timer->Start();
    timer->Stop();
    timer->SetPeriod(1000);
    timer->Start();
    timer->SetPeriod(oneHour);
    ExpectStarted(*timer);
    EXPECT_EQ(SetHandler(*timer),
              "VeException: SetHandler: Changing handlers of an already started timer is not possible.");
    WaitUntil([&] { return called.GetValue() > 30; });
    const auto silent = Own(factory->CreateTimer(0, "", 0, nullptr, nullptr, 0));
    silent->Start();
}

TEST_F(TimerTest, StopWaitsForACallAlsoForOneThatHasStoppedTheTimerItself) {
    for (const bool stopsItself : {false, true}) {
        std::atomic<bool> hasEnded{false};
        std::unique_ptr<ITimerService> timer = Make(oneHour, [&] {
            if (stopsItself) {
                timer->Stop();
            }
            postAndWait();
            hasEnded = true;
        });
        timer->Start();
        called.Wait(0);
        const auto stop = [&] {
            timer->Stop();
            EXPECT_TRUE(hasEnded);
        };
        std::thread first = Sleeping(stop);
        std::thread second = Sleeping(stop);
        // Until then it counts as started, unless it has stopped itself.
        EXPECT_EQ(SetHandler(*timer) != "done", !stopsItself);
        go.Post();
        first.join();
        second.join();
    }
}

TEST_F(TimerTest, RunsWithItsSettingsAndWithThoseThatAreChanged) {
    const unsigned int priority = MayHaveRealTimePriority() ? 1 : 0;
    std::string settings;
    int slack = 0;
    const auto look = [&] {
        settings = OwnSettings();
        slack = prctl(PR_GET_TIMERSLACK);
        postAndWait();
        settings += "; " + OwnSettings();
    };
    const auto timer = Make(oneHour, look, "a timer of more than 15", 1);
    const auto runAndChange = [&](unsigned int newPriority) {
        timer->Start();
        called.Wait(0);
        timer->SetName("another name, cut");
        timer->SetPriority(newPriority);
        go.Post();
        timer->Stop();
        return settings;
    };
    const std::string changed = "another name, c, " + std::string(priority == 1 ? "real-time 1" : "normal 0");
    EXPECT_EQ(runAndChange(priority), "a timer of more, normal 0, 1 from 0; " + changed + ", 1 from 0");
    // User-mode emulation does not pass it on.
    EXPECT_TRUE(slack == 1 || IsEmulated());
    EXPECT_EQ(runAndChange(0), changed + ", 1 from 0; another name, c, normal 0, 1 from 0");
    EXPECT_EQ(timer->GetName(), "another name, c");
    if (priority == 0) {
        GTEST_SKIP() << needsRealTime;
    }
}

TEST_F(TimerTest, FailuresAreReported) {
    const std::string invalid = "Invalid argument";
    const std::string name = "VeException: ChangeName: Could not set threadname of timer, linux error code: ";
    const std::string affinity = "VeException: ChangeCpuAffinity: Could not set cpu affinity, linux error code: ";
    const auto start = [&] { Make(1000, post, "name", 1)->Start(); };
    const auto timer = Make(oneHour, post, "name", 1);
    // There is no thread yet.
    EXPECT_TRUE(ComesTo([&] { timer->ChangeName(""); }, name + "No such process"));
    timer->Start();
    ExpectFailures({
        {"pthread_create", start,
         "VeException: Start: Could not create posix-thread for timer, linux error code: " + invalid},
        {"pthread_setname_np", start, name + invalid},
        {"pthread_setaffinity_np", start, affinity + invalid},
        {"pthread_setname_np", [&] { timer->SetName("x"); }, name + invalid},
        {"pthread_setschedparam", [&] { timer->SetPriority(7); },
         "VeException: ChangePriority: Could not change priority, linux error code: " + invalid},
        {"open", &TimerService::SetLatencyTarget,
         "VeException: SetLatencyTarget: Could not open /dev/cpu_dma_latency: Permission denied"},
        // The results of these are not looked at.
        {"pthread_attr_init", start, "done"},
        {"pthread_attr_destroy", start, "done"},
    });
    EXPECT_TRUE(ComesTo([&] { timer->SetCPUAffinity(0); }, affinity + invalid));
    // What was refused is not kept.
    EXPECT_EQ(timer->GetName(), "name");
    EXPECT_EQ(timer->GetPriority(), 0U);
    EXPECT_EQ(timer->GetCPUAffinity(), 1U);
}

// It runs, but does not count as started: it is not stopped, but can be started again.
TEST_F(TimerTest, StartThatFailsLateLeavesTheTimerRunning) {
    const auto timer = Make(1000, post);
    {
        const FailingCall naming("pthread_setname_np");
        EXPECT_THROW(timer->Start(), VeException);
    }
    timer->Stop();
    while (called.TryWait()) {
    }
    called.Wait(0);
    timer->Start();
    ExpectStarted(*timer);
}

TEST_F(TimerTest, MayBeStoppedAndDeletedByItsHandler) {
    std::unique_ptr<ITimerService> timer = Make(0, [&, calls = 0]() mutable {
        if (++calls == 1) {
            timer->Stop();
            ExpectStarted(*timer);
        } else {
            timer.reset();
        }
        called.Post();
    });
    timer->Start();
    called.Wait(0);
    timer->Start();
    called.Wait(0);
    EXPECT_EQ(called.GetValue(), 0);
}

TEST_F(TimerTest, WaitForTheEndIsOvertakenByOtherThreads) {
    // Sanitizers start a thread of their own beside the first.
    std::thread([] {}).join();
    const std::ptrdiff_t threads = CountThreads();
    const pthread_t self = pthread_self();
    int locks = 3;
    std::function<void()> others;
    // Before this thread takes a lock for the third time, which is when it is about to wait.
    const Interposition between("pthread_mutex_lock", [&](const auto& arguments) {
        if (pthread_equal(self, pthread_self()) != 0 && ++locks == 3) {
            std::thread(others).join();
        }
        return between.CallThrough(arguments);
    });
    const auto timer = Make(oneHour, post);
    timer->Start();
    others = [&] {
        timer->Stop();
        timer->Start();
    };
    locks = 0;
    timer->Stop();
    ExpectStarted(*timer);
    timer->Stop();
    const Interposition naming("pthread_setname_np", [](const auto& /*arguments*/) { return EINVAL; });
    others = [&] { EXPECT_THROW(timer->Start(), VeException); };
    others();
    locks = 0;
    EXPECT_THROW(timer->Start(), VeException);
    WaitUntil([&] { return CountThreads() <= threads + 1; });
}

TEST_F(TimerTest, CanBeStartedAfterACancelledStop) {
    const auto timer = Make(oneHour, postAndWait);
    timer->Start();
    called.Wait(0);
    EXPECT_FALSE(HasNoCancellationPoint([&] { timer->Stop(); }));
    go.Post();
    timer->Start();
    go.Post();
}

TEST_F(TimerTest, DeletionIsNotCancelledWhileItWaits) {
    std::atomic<pid_t> waiting{0};
    auto timer = Make(oneHour, [&] {
        called.Post();
        WaitUntil([&] { return waiting != 0 && ThreadStat(waiting, 3) == "S"; });
    });
    timer->Start();
    called.Wait(0);
    EXPECT_TRUE(HasNoCancellationPoint([&] {
        waiting = gettid();
        timer.reset();
    }));
}

TEST(LatencyTargetTest, IsZeroAndStaysOpenButNotInChildren) {
    const TemporaryFolder folder;
    int device = open((folder / "device").c_str(), O_RDWR | O_CREAT, 0600);
    const Interposition opened("open", [&](const auto& arguments) {
        EXPECT_STREQ(Interposition::Pointer<const char>(arguments[0]), "/dev/cpu_dma_latency");
        EXPECT_EQ(arguments[1], O_RDWR | O_CLOEXEC);
        return device;
    });
    TimerService::SetLatencyTarget();
    EXPECT_EQ(folder.Read("device"), std::string(4, '\0'));
    EXPECT_EQ(close(device), 0);
    EXPECT_TRUE(ComesTo(&TimerService::SetLatencyTarget,
                        "VeException: SetLatencyTarget: Could not write 0 cpu_dma latency: Bad file descriptor"));
}

}  // namespace
