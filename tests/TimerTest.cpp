#include "support/Test.h"

#include <fcntl.h>
#include <sys/prctl.h>

namespace {

void Call(void* function) { (*static_cast<std::function<void()>*>(function))(); }

// A wait that lasts as long is a hang.
constexpr unsigned int oneHour = 3600000000;

class TimerTest : public FactoryTest {
protected:
    std::unique_ptr<ITimerService> Make(unsigned int period, std::function<void()>& handler,
                                        const BasicString& name = BasicString::Empty, unsigned int priority = 0,
                                        unsigned int mask = 0) {
        return Own(factory->CreateTimer(period, name, priority, &handler, &Call, mask));
    }

    void WaitForCalls(int count) {
        for (int i = 0; i < count; ++i) {
            called.Wait(0);
        }
    }

    static void ExpectStarted(ITimerService& timer) {
        EXPECT_TRUE(ComesTo([&] { timer.Start(); }, "VeException: Start: Timer was started yet!"));
    }

    SemaphoreService called{0};
    std::function<void()> post = [this] { called.Post(); };
};

// While it lives, records until when the library waits for condition variables.
class RecordedDeadlines {
public:
    std::vector<std::chrono::nanoseconds> Get(std::size_t count) {
        WaitUntil([&] { return recorded >= count; });
        return {deadlines.begin(), deadlines.begin() + static_cast<std::ptrdiff_t>(count)};
    }

private:
    std::array<std::chrono::nanoseconds, 100> deadlines{};
    std::atomic<std::size_t> recorded{0};
    const Interposition waits{"pthread_cond_timedwait", [this](const auto& arguments) {
                                  const auto& deadline = *Interposition::Pointer<const timespec>(arguments[2]);
                                  if (recorded < deadlines.size()) {
                                      deadlines[recorded] = std::chrono::seconds(deadline.tv_sec) +
                                                            std::chrono::nanoseconds(deadline.tv_nsec);
                                      ++recorded;
                                  }
                                  return waits.CallThrough(arguments);
                              }};
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
    RecordedDeadlines recorded;
    const auto timer = Make(1000, handler);
    const auto start = steady_clock::now();
    timer->Start();
    const auto deadlines = recorded.Get(30);
    timer->Stop();
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_GE(calls[i] - start, i * milliseconds(1)) << i;
    }
    for (std::size_t i = 1; i < deadlines.size(); ++i) {
        EXPECT_EQ(deadlines[i] - deadlines[i - 1], milliseconds(1));
    }
}

TEST_F(TimerTest, WaitsAPeriodOfAnyLength) {
    for (const unsigned int period : {1000000U, 2500000U, 4294967295U}) {
        steady_clock::time_point call;
        std::function<void()> handler = [&] { call = steady_clock::now(); };
        RecordedDeadlines recorded;
        const auto timer = Make(period, handler);
        const auto start = steady_clock::now();
        timer->Start();
        const std::chrono::nanoseconds deadline = recorded.Get(1)[0];
        timer->Stop();
        EXPECT_GE(deadline, start.time_since_epoch() + std::chrono::microseconds(period));
        EXPECT_LE(deadline, call.time_since_epoch() + std::chrono::microseconds(period));
    }
}

TEST_F(TimerTest, WaitsAgainWhenWokenWithoutReason) {
    std::atomic<int> waits{0};
    const Interposition woken("pthread_cond_timedwait",
                              [&](const auto& arguments) { return ++waits == 1 ? 0 : woken.CallThrough(arguments); });
    const auto timer = Make(oneHour, post);
    timer->Start();
    WaitUntil([&] { return waits == 2; });
    EXPECT_EQ(called.GetValue(), 1);
    timer->Stop();
}

TEST_F(TimerTest, RunsWithoutPauseOrHandler) {
    const auto timer = Make(0, post);
    timer->Start();
    WaitForCalls(1000);
    timer->Stop();
    const auto silent = Own(factory->CreateTimer(1000, "", 0, nullptr, nullptr, 0));
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
    EXPECT_TRUE(ComesTo([&] { dynamic_cast<TimerServiceBase&>(*timer).SetHandler(nullptr, nullptr); },
                        "VeException: SetHandler: Changing handlers of an already started timer is not possible."));
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
            stop = Sleeping([&] {
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
    int slack = 0;
    std::function<void()> look = [&] {
        settings = OwnSettings();
        slack = prctl(PR_GET_TIMERSLACK);
        called.Post();
    };
    const auto timer = Make(oneHour, look, "a timer of more than 15", 0, 1);
    EXPECT_EQ(timer->GetName(), "a timer of more");
    timer->Start();
    called.Wait(0);
    timer->SetName("another name, cut");
    EXPECT_TRUE(ComesTo([&] { timer->SetCPUAffinity(0); },
                        "VeException: ChangeCpuAffinity: Could not set cpu affinity, linux error code: Invalid "
                        "argument"));
    EXPECT_EQ(timer->GetName(), "another name, c");
    EXPECT_EQ(timer->GetCPUAffinity(), 1U);
    timer->Stop();
    EXPECT_EQ(settings, "a timer of more, normal 0, 1 from 0");
    // User-mode emulation does not pass it on.
    EXPECT_TRUE(slack == 1 || IsEmulated());
    if (!MayHaveRealTimePriority()) {
        GTEST_SKIP() << needsRealTime;
    }
    timer->SetPriority(1);
    timer->Start();
    called.Wait(0);
    timer->SetPriority(0);
    timer->Stop();
    EXPECT_EQ(settings, "another name, c, real-time 1, 1 from 0");
}

TEST_F(TimerTest, FailuresAreReported) {
    const auto start = [&] { Make(1000, post, "name", 0, 1)->Start(); };
    // There is no thread yet.
    const auto stopped = Make(oneHour, post);
    const std::string name = "VeException: ChangeName: Could not set threadname of timer, linux error code: ";
    const std::string priority = "VeException: ChangePriority: Could not change priority, linux error code: ";
    const std::string affinity = "VeException: ChangeCpuAffinity: Could not set cpu affinity, linux error code: ";
    EXPECT_TRUE(ComesTo([&] { stopped->ChangeName(""); }, name + "No such process"));
    EXPECT_TRUE(ComesTo([&] { stopped->ChangePriority(0); }, priority + "No such process"));
    EXPECT_TRUE(ComesTo([&] { stopped->ChangeCpuAffinity(1); }, affinity + "No such process"));
    const std::string latency = "VeException: SetLatencyTarget: Could not ";
    ExpectFailures({
        {"pthread_create", start,
         "VeException: Start: Could not create posix-thread for timer, linux error code: Invalid argument"},
        {"pthread_setname_np", start, name + "Invalid argument"},
        {"pthread_setaffinity_np", start, affinity + "Invalid argument"},
        {"open", &TimerService::SetLatencyTarget, latency + "open /dev/cpu_dma_latency: Permission denied"},
    });
    // The results of these are not looked at.
    ExpectFailures({{"pthread_attr_init", start, "done"}, {"pthread_attr_destroy", start, "done"}});
    const auto noSuchPriority = Make(1000, post, "", 1000);
    EXPECT_TRUE(ComesTo([&] { noSuchPriority->Start(); },
                        "VeException: Start: Could not create posix-thread for timer, linux error code: Invalid "
                        "argument"));
}

// It runs, but does not count as started: it is not stopped, but can be started again.
TEST_F(TimerTest, StartThatFailsLateLeavesTheTimerRunning) {
    const auto timer = Make(1000, post);
    {
        const FailingCall naming("pthread_setname_np");
        EXPECT_THROW(timer->Start(), VeException);
    }
    WaitForCalls(1);
    timer->Stop();
    WaitForCalls(2);
    timer->SetPeriod(oneHour);
    timer->Start();
    timer->Stop();
    while (called.TryWait()) {
    }
    timer->Start();
    called.Wait(0);
    EXPECT_EQ(called.GetValue(), 0);
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

TEST_F(TimerTest, StopDoesNotWaitForATimerThatHasBeenStartedAgain) {
    const auto timer = Make(oneHour, post);
    timer->Start();
    {
        // Before this thread takes a lock for the third time, which is when it is about to wait.
        const Interposition between("pthread_mutex_lock",
                                    [&, self = pthread_self(), locks = 0](const auto& arguments) mutable {
                                        if (pthread_equal(self, pthread_self()) != 0 && ++locks == 3) {
                                            std::thread([&] {
                                                timer->Stop();
                                                timer->Start();
                                            }).join();
                                        }
                                        return between.CallThrough(arguments);
                                    });
        timer->Stop();
    }
    ExpectStarted(*timer);
}

// Each start fails late, and has to end the thread that another has left.
TEST_F(TimerTest, StartsAtTheSameTimeLeaveNoTwoThreads) {
    std::atomic<int> inside{0};
    std::function<void()> handler = [&] {
        EXPECT_EQ(++inside, 1);
        std::this_thread::yield();
        --inside;
    };
    const auto timer = Make(200, handler, "", 0, 1U << 31U);
    std::vector<std::thread> threads(3);
    for (std::thread& thread : threads) {
        thread = std::thread([&] {
            for (int i = 0; i < 500; ++i) {
                EXPECT_THROW(timer->Start(), VeException);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(TimerTest, CanBeStartedAfterACancelledStop) {
    SemaphoreService leave(0);
    std::function<void()> handler = [&] {
        called.Post();
        leave.Wait(0);
    };
    const auto timer = Make(oneHour, handler);
    const auto stop = [](void* stopped) -> void* {
        static_cast<ITimerService*>(stopped)->Stop();
        return nullptr;
    };
    const auto stopper = Own(factory->CreateThread(stop, timer.get()));
    timer->Start();
    called.Wait(0);
    stopper->StartThread();
    stopper->Cancel();
    stopper->Join();
    leave.Post();
    timer->Start();
    called.Wait(0);
    leave.Post();
}

TEST_F(TimerTest, DeletionIsNotCancelledWhileItWaits) {
    SemaphoreService leave(0);
    std::function<void()> handler = [&] {
        called.Post();
        leave.Wait(0);
    };
    auto timer = Make(oneHour, handler);
    timer->Start();
    called.Wait(0);
    bool isDeleted = false;
    std::thread deleter = Sleeping([&] {
        timer.reset();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        isDeleted = true;
    });
    pthread_cancel(deleter.native_handle());
    leave.Post();
    deleter.join();
    EXPECT_TRUE(isDeleted);
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

TEST(LatencyTargetTest, IsZeroAndStaysOpenButNotInChildren) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const Interposition opened("open", [&](const auto& arguments) {
        EXPECT_STREQ(Interposition::Pointer<const char>(arguments[0]), "/dev/cpu_dma_latency");
        EXPECT_EQ(arguments[1] & O_CLOEXEC, O_CLOEXEC);
        return ends[1];
    });
    TimerService::SetLatencyTarget();
    char written[8] = "xxxxxxx";
    EXPECT_EQ(read(ends[0], written, sizeof written), 4);
    EXPECT_EQ(std::string(written, 4), std::string(4, '\0'));
    EXPECT_EQ(close(ends[1]), 0);
    close(ends[0]);
    EXPECT_TRUE(ComesTo(&TimerService::SetLatencyTarget,
                        "VeException: SetLatencyTarget: Could not write 0 cpu_dma latency: Bad file descriptor"));
}

}  // namespace
