#include "support/OwnSettings.h"
#include "support/Test.h"

#include <fcntl.h>

namespace {

void Call(void* function) { (*static_cast<std::function<void()>*>(function))(); }

// A wait that lasts as long is a hang.
constexpr unsigned int oneHour = 3600000000;

class TimerTest : public FactoryTest {
protected:
    std::unique_ptr<ITimerService> Make(unsigned int period, std::function<void()>& handler,
                                        const BasicString& name = BasicString::Empty, unsigned int priority = 0,
                                        unsigned int mask = 0) {
        return std::unique_ptr<ITimerService>(factory->CreateTimer(period, name, priority, &handler, &Call, mask));
    }

    void WaitForCalls(int count) {
        for (int i = 0; i < count; ++i) {
            called.Wait(0);
        }
    }

    static void ExpectStarted(ITimerService& timer) {
        EXPECT_TRUE(Throws([&] { timer.Start(); }, "Start: Timer was started yet!"));
    }

    SemaphoreService called{0};
    std::function<void()> post = [this] { called.Post(); };
};

TEST_F(TimerTest, CallsAtOnceAndThenNeverBeforeADeadlineOfWhichItSkipsNone) {
    std::vector<steady_clock::time_point> calls;
    std::function<void()> handler = [&] {
        const auto begin = steady_clock::now();
        calls.push_back(begin);
        // The first takes too long.
        while (calls.size() == 1 && steady_clock::now() - begin < milliseconds(10)) {
        }
    };
    const RecordedDeadlines recorded;
    const auto timer = Make(1000, handler);
    const auto start = steady_clock::now();
    timer->Start();
    const auto deadlines = recorded.Get(30);
    timer->Stop();
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_GE(calls[i] - start, i * milliseconds(1)) << i;
    }
    for (std::size_t i = 1; i < deadlines.size(); ++i) {
        EXPECT_EQ(deadlines[i] - deadlines[i - 1], 1000000);
    }
}

TEST_F(TimerTest, WaitsAPeriodOfAnyLength) {
    for (const unsigned int period : {1000000U, 2500000U, 4294967295U}) {
        steady_clock::time_point call;
        std::function<void()> handler = [&] { call = steady_clock::now(); };
        const RecordedDeadlines recorded;
        const auto timer = Make(period, handler);
        const auto start = steady_clock::now();
        timer->Start();
        const std::chrono::nanoseconds deadline(recorded.Get(1)[0]);
        timer->Stop();
        EXPECT_GE(deadline, start.time_since_epoch() + std::chrono::microseconds(period));
        EXPECT_LE(deadline, call.time_since_epoch() + std::chrono::microseconds(period));
    }
}

TEST_F(TimerTest, WaitsAgainWhenWokenWithoutReason) {
    const RecordedDeadlines recorded;
    FailingCall woken("pthread_cond_timedwait", 0, 0);
    woken.InAnyThread();
    const auto timer = Make(oneHour, post);
    timer->Start();
    // The wait after the one that ended without reason.
    recorded.Get(1);
    EXPECT_EQ(called.GetValue(), 1);
    timer->Stop();
}

TEST_F(TimerTest, RunsWithoutPauseOrHandler) {
    const auto timer = Make(0, post);
    timer->Start();
    WaitForCalls(1000);
    timer->Stop();
    const std::unique_ptr<ITimerService> silent(factory->CreateTimer(1000, "", 0, nullptr, nullptr, 0));
    silent->Start();
    silent->Stop();
}

TEST_F(TimerTest, StartsAndStopsAgainAndAgainWithThePeriodOfTheStart) {
    const auto timer = Make(oneHour, post);
    timer->Stop();
    // At any point of the cycle.
    for (int i = 0; i < 300; ++i) {
        timer->Start();
        if (i % 3 != 0) {
            called.Wait(0);
        }
        if (i % 3 == 2) {
            std::this_thread::yield();
        }
        timer->Stop();
    }
    timer->SetPeriod(1000);
    timer->Start();
    timer->SetPeriod(oneHour);
    ExpectStarted(*timer);
    EXPECT_TRUE(Throws([&] { dynamic_cast<TimerServiceBase&>(*timer).SetHandler(nullptr, nullptr); },
                       "SetHandler: Changing handlers of an already started timer is not possible."));
    WaitForCalls(300);
}

TEST_F(TimerTest, StopWaitsForACallAlsoForOneThatHasStoppedTheTimerItself) {
    for (const bool stopsItself : {false, true}) {
        SemaphoreService leave(0);
        std::atomic<int> ended{0};
        std::unique_ptr<ITimerService> timer;
        std::function<void()> handler = [&] {
            if (stopsItself) {
                timer->Stop();
            }
            called.Post();
            leave.Wait(0);
            ++ended;
        };
        timer = Make(oneHour, handler);
        timer->Start();
        called.Wait(0);
        std::vector<std::thread> stops(3);
        for (std::thread& stop : stops) {
            stop = std::thread([&] {
                timer->Stop();
                EXPECT_EQ(ended, 1);
            });
        }
        leave.Post();
        for (std::thread& stop : stops) {
            stop.join();
        }
    }
}

TEST_F(TimerTest, AppliesAndChangesItsSettings) {
    std::string settings;
    std::function<void()> look = [&] {
        settings = OwnSettings();
        called.Post();
    };
    const auto timer = Make(oneHour, look, "a timer of more than 15", 0, 1);
    EXPECT_EQ(timer->GetName(), "a timer of more");
    // There is no thread yet.
    EXPECT_TRUE(Throws([&] { timer->ChangeName(""); },
                       "ChangeName: Could not set threadname of timer, linux error code: No such process"));
    EXPECT_TRUE(Throws([&] { timer->ChangePriority(0); },
                       "ChangePriority: Could not change priority, linux error code: No such process"));
    EXPECT_TRUE(Throws([&] { timer->ChangeCpuAffinity(1); },
                       "ChangeCpuAffinity: Could not set cpu affinity, linux error code: No such process"));
    timer->Start();
    called.Wait(0);
    timer->SetName("another name, cut");
    EXPECT_TRUE(Throws([&] { timer->SetCPUAffinity(0); },
                       "ChangeCpuAffinity: Could not set cpu affinity, linux error code: Invalid argument"));
    EXPECT_EQ(timer->GetName(), "another name, c");
    EXPECT_EQ(timer->GetCPUAffinity(), 1U);
    timer->Stop();
    EXPECT_EQ(settings, "a timer of more, normal 0, 1 from 0");
    if (!MayHaveRealTimePriority()) {
        GTEST_SKIP() << needsRealTime;
    }
    timer->SetPriority(20);
    timer->Start();
    called.Wait(0);
    timer->SetPriority(0);
    timer->Stop();
    EXPECT_EQ(settings, "another name, c, real-time 20, 1 from 0");
}

TEST_F(TimerTest, StartThatFailsLeavesWhatItSays) {
    const auto timer = Make(oneHour, post);
    {
        const FailingCall naming("pthread_setname_np", EINVAL, EACCES);
        EXPECT_THROW(timer->Start(), VeException);
    }
    // Here the timer runs, but does not count as started: it can be started again.
    called.Wait(0);
    timer->Start();
    called.Wait(0);
    timer->Stop();
    EXPECT_EQ(called.GetValue(), 0);

    const auto noSuchProcessor = Make(1000, post, "", 0, 1U << 31U);
    EXPECT_THROW(noSuchProcessor->Start(), VeException);
    const auto noSuchPriority = Make(1000, post, "", 1000);
    EXPECT_TRUE(Throws([&] { noSuchPriority->Start(); },
                       "Start: Could not create posix-thread for timer, linux error code: Invalid argument"));
}

TEST_F(TimerTest, MayBeStoppedAndDeletedByItsHandler) {
    std::unique_ptr<ITimerService> timer;
    std::function<void()> handler = [&, calls = 0]() mutable {
        if (++calls == 1) {
            timer->Stop();
            ExpectStarted(*timer);
        } else {
            timer.reset();
        }
        called.Post();
    };
    timer = Make(0, handler);
    timer->Start();
    called.Wait(0);
    timer->Start();
    called.Wait(0);
    EXPECT_EQ(called.GetValue(), 0);
}

// Another thread comes in between.
TEST_F(TimerTest, StopDoesNotWaitForATimerThatHasBeenStartedAgain) {
    const auto timer = Make(oneHour, post);
    timer->Start();
    {
        const auto restart = [&] {
            std::thread([&] {
                timer->Stop();
                timer->Start();
            }).join();
        };
        // When this thread is about to wait for the end of the timer's.
        const FailingCall between("pthread_mutex_lock", restart, 3);
        timer->Stop();
    }
    ExpectStarted(*timer);
}

TEST_F(TimerTest, StartThatComesSecondLeavesTheTimerRunning) {
    const auto timer = Make(1000, post);
    {
        const auto start = [&] { std::thread([&] { timer->Start(); }).join(); };
        // When this thread is about to look whether the timer runs.
        const FailingCall between("pthread_mutex_lock", start, 1);
        ExpectStarted(*timer);
    }
    while (called.TryWait()) {
    }
    WaitForCalls(2);
}

TEST_F(TimerTest, StartEndsATimerThatAnotherStartHasLeftRunning) {
    const auto timer = Make(oneHour, post);
    const auto failToStart = [&] {
        std::thread([&] {
            const FailingCall naming("pthread_setname_np", EINVAL, EACCES);
            EXPECT_THROW(timer->Start(), VeException);
        }).join();
    };
    const FailingCall between("pthread_mutex_lock", failToStart, 5);
    timer->Start();
}

TEST_F(TimerTest, ExceptionOfTheHandlerEndsTheProcess) {
    Child child([this] {
        std::function<void()> handler = [] { throw VeException("from the handler"); };
        const auto timer = Make(0, handler);
        timer->Start();
        called.Wait(0);
        return 0;
    });
    EXPECT_EQ(child.Wait(), 128 + SIGABRT);
}

TEST(LatencyTargetTest, IsZero) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const FailingCall opened("open64", ends[1], 0);
    TimerService::SetLatencyTarget();
    char written[8] = "xxxxxxx";
    EXPECT_EQ(read(ends[0], written, sizeof written), 4);
    EXPECT_EQ(std::string(written, 4), std::string(4, '\0'));
    close(ends[0]);
    close(ends[1]);
}

TEST(LatencyTargetTest, KeepsTheDeviceOpenButNotInChildren) {
    EXPECT_TRUE(SucceedsInChild([] {
        const int next = NextDescriptor();
        try {
            TimerService::SetLatencyTarget();
            TimerService::SetLatencyTarget();
            EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
            EXPECT_EQ(fcntl(next + 1, F_GETFD), FD_CLOEXEC);
        } catch (const VeException&) {
            // A kernel without the device, or a user without the right.
            EXPECT_NE(access("/dev/cpu_dma_latency", R_OK | W_OK), 0);
        }
    }));
}

}  // namespace
