#include "support/Test.h"

#include <fcntl.h>
#include <sched.h>

#include <system_error>

using std::chrono::seconds;

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

    SemaphoreService called{0};
    std::function<void()> post = [this] { called.Post(); };
};

TEST_F(TimerTest, StoresSettingsUntilTheStart) {
    const std::uint32_t before = LiveObjects();
    const auto timer = Make(7, post, "a name of more than 15", 1000, 0xffffffff);
    EXPECT_EQ(LiveObjects(), before + 3);
    EXPECT_EQ(timer->GetPeriod(), 7U);
    EXPECT_EQ(timer->GetName(), "a name of more ");
    EXPECT_EQ(timer->GetPriority(), 1000U);
    EXPECT_EQ(timer->GetCPUAffinity(), 0xffffffffU);
    EXPECT_EQ(timer->GetMaxNameLength(), 15U);
    timer->Stop();
    // There is no thread yet.
    EXPECT_TRUE(
        Throws<VeException>([&] { timer->ChangeName(""); },
                            "ChangeName: Could not set threadname of timer, linux error code: No such process"));
    EXPECT_TRUE(Throws<VeException>([&] { timer->ChangePriority(0); },
                                    "ChangePriority: Could not change priority, linux error code: No such process"));
    EXPECT_TRUE(
        Throws<VeException>([&] { timer->ChangeCpuAffinity(1); },
                            "ChangeCpuAffinity: Could not set cpu affinity, linux error code: No such process"));
}

TEST_F(TimerTest, CallsAtOnceAndThenNeverBeforeItsDeadline) {
    std::vector<steady_clock::time_point> calls;
    std::function<void()> handler = [&] {
        if (calls.size() < 20) {
            calls.push_back(steady_clock::now());
            called.Post();
        }
    };
    const auto timer = Make(2500, handler);
    const auto start = steady_clock::now();
    timer->Start();
    for (int i = 0; i < 20; ++i) {
        called.Wait(0);
    }
    timer->Stop();
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_GE(calls[i] - start, i * std::chrono::microseconds(2500)) << i;
    }
}

TEST_F(TimerTest, SkipsNoDeadlineWhenACallTakesTooLong) {
    std::function<void()> handler = [calls = 0]() mutable {
        const auto begin = steady_clock::now();
        while (calls == 0 && steady_clock::now() - begin < milliseconds(10)) {
        }
        ++calls;
    };
    const RecordedDeadlines recorded;
    const auto timer = Make(1000, handler);
    timer->Start();
    const auto deadlines = recorded.Get(30);
    timer->Stop();
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
    EXPECT_TRUE(called.TryWait());
    EXPECT_FALSE(called.TryWait());
    timer->Stop();
}

TEST_F(TimerTest, RunsWithoutPauseOrHandler) {
    const auto timer = Make(0, post);
    timer->Start();
    for (int i = 0; i < 1000; ++i) {
        called.Wait(0);
    }
    timer->Stop();
    const std::unique_ptr<ITimerService> silent(factory->CreateTimer(1000, "", 0, nullptr, nullptr, 0));
    silent->Start();
    silent->Stop();
}

TEST_F(TimerTest, StartsAndStopsAgainAndAgain) {
    const auto timer = Make(oneHour, post);
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
    timer->Start();
    EXPECT_TRUE(Throws<VeException>([&] { timer->Start(); }, "Start: Timer was started yet!"));
    EXPECT_TRUE(Throws<VeException>([&] { dynamic_cast<TimerServiceBase&>(*timer).SetHandler(nullptr, nullptr); },
                                    "SetHandler: Changing handlers of an already started timer is not possible."));
}

TEST_F(TimerTest, StopDuringACallWaitsForItAndNoLonger) {
    SemaphoreService entered(0);
    SemaphoreService leave(0);
    std::atomic<int> ended{0};
    std::function<void()> handler = [&] {
        entered.Post();
        leave.Wait(0);
        ++ended;
    };
    const auto timer = Make(oneHour, handler);
    timer->Start();
    entered.Wait(0);
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
    EXPECT_EQ(ended, 1);
}

TEST_F(TimerTest, KeepsThePeriodItStartedWith) {
    const auto timer = Make(1000, post);
    timer->Start();
    timer->SetPeriod(oneHour);
    for (int i = 0; i < 5; ++i) {
        called.Wait(0);
    }
    timer->Stop();
    EXPECT_EQ(timer->GetPeriod(), oneHour);
}

TEST_F(TimerTest, AppliesAndChangesItsSettings) {
    char name[16] = "";
    cpu_set_t processors;
    int policy = -1;
    sched_param parameters{};
    std::function<void()> look = [&] {
        pthread_getname_np(pthread_self(), name, sizeof name);
        pthread_getaffinity_np(pthread_self(), sizeof processors, &processors);
        pthread_getschedparam(pthread_self(), &policy, &parameters);
        called.Post();
    };
    const auto timer = Make(oneHour, look, "a timer", 0, 1);
    timer->Start();
    called.Wait(0);
    timer->Stop();
    EXPECT_STREQ(name, "a timer");
    EXPECT_EQ(CPU_COUNT(&processors), 1);
    EXPECT_EQ(policy, SCHED_OTHER);
    timer->SetPriority(20);
    try {
        timer->Start();
    } catch (const VeException& exception) {
        GTEST_SKIP() << needsRealTime << ": " << exception.what();
    }
    called.Wait(0);
    timer->SetName("another name, cut");
    timer->SetPriority(0);
    EXPECT_TRUE(
        Throws<VeException>([&] { timer->SetCPUAffinity(0); },
                            "ChangeCpuAffinity: Could not set cpu affinity, linux error code: Invalid argument"));
    EXPECT_EQ(timer->GetName(), "another name, c");
    EXPECT_EQ(timer->GetCPUAffinity(), 1U);
    timer->Stop();
    EXPECT_EQ(policy, SCHED_FIFO);
    EXPECT_EQ(parameters.sched_priority, 20);
}

TEST_F(TimerTest, StartThatFailsLeavesWhatItSays) {
    const auto timer = Make(oneHour, post, "", 0, 1);
    const auto start = [&] { timer->Start(); };
    const Failure naming{"pthread_setname_np", start,
                         "ChangeName: Could not set threadname of timer, linux error code: {}"};
    ExpectFailures(Told::ByCode,
                   {{"pthread_create", start, "Start: Could not create posix-thread for timer, linux error code: {}"}});
    EXPECT_THROW(timer->ChangeName(""), VeException);
    // Here the timer runs, but does not count as started: it can be started again.
    for (const Failure& failure :
         {naming, Failure{"pthread_setaffinity_np", start,
                          "ChangeCpuAffinity: Could not set cpu affinity, linux error code: {}"}}) {
        ExpectFailures(Told::ByCode, {failure});
        called.Wait(0);
    }
    timer->Start();
    called.Wait(0);
    timer->Stop();
    EXPECT_FALSE(called.TryWait());
    // And deleted.
    ExpectFailures(Told::ByCode, {naming});

    const auto noSuchProcessor = Make(1000, post, "", 0, 1U << 31U);
    EXPECT_THROW(noSuchProcessor->Start(), VeException);
    const auto noSuchPriority = Make(1000, post, "", 1000);
    EXPECT_TRUE(Throws<VeException>([&] { noSuchPriority->Start(); },
                                    "Start: Could not create posix-thread for timer, linux error code: Invalid "
                                    "argument"));
}

TEST_F(TimerTest, MayBeStoppedAndDeletedByItsHandler) {
    std::unique_ptr<ITimerService> timer;
    std::function<void()> handler = [&, calls = 0]() mutable {
        if (++calls == 1) {
            timer->Stop();
            EXPECT_TRUE(Throws<VeException>([&] { timer->Start(); }, "Start: Timer was started yet!"));
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
    EXPECT_FALSE(called.TryWait());
}

TEST_F(TimerTest, StopWaitsForACallThatHasStoppedTheTimerItself) {
    SemaphoreService leave(0);
    std::atomic<bool> ended{false};
    std::unique_ptr<ITimerService> timer;
    std::function<void()> handler = [&] {
        timer->Stop();
        called.Post();
        leave.Wait(0);
        ended = true;
    };
    timer = Make(0, handler);
    timer->Start();
    called.Wait(0);
    std::thread stop([&] {
        timer->Stop();
        EXPECT_TRUE(ended);
    });
    leave.Post();
    stop.join();
}

// Another thread comes in between when this one is about to wait for the end of the timer's thread.
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
        const FailingCall between("pthread_mutex_lock", restart, 3);
        timer->Stop();
    }
    EXPECT_TRUE(Throws<VeException>([&] { timer->Start(); }, "Start: Timer was started yet!"));
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

TEST_F(TimerTest, FailedConstructionLeavesNothingBehind) {
    const std::uint32_t before = LiveObjects();
    for (const char* const function : {"pthread_mutex_init", "pthread_cond_init"}) {
        const FailingCall call(function, ENOMEM, EPERM);
        EXPECT_THROW(Make(1, post), VeException);
        EXPECT_EQ(LiveObjects(), before);
    }
}

TEST(LatencyTargetTest, FailedCallsAreReported) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    {
        // What is written is a target of 0.
        const FailingCall opened("open64", ends[1], 0);
        TimerService::SetLatencyTarget();
        char written[8] = "xxxxxxx";
        EXPECT_EQ(read(ends[0], written, sizeof written), 4);
        EXPECT_EQ(std::string(written, 4), std::string(4, '\0'));
    }
    ExpectFailures(Told::ByErrno, {{"open64", [] { TimerService::SetLatencyTarget(); },
                                    "SetLatencyTarget: Could not open /dev/cpu_dma_latency: {}"}});
    {
        const FailingCall opened("open64", ends[0], 0);
        // The reading end of a pipe cannot be written.
        EXPECT_TRUE(Throws<VeException>([] { TimerService::SetLatencyTarget(); },
                                        "SetLatencyTarget: Could not write 0 cpu_dma latency: Bad file descriptor"));
    }
    EXPECT_EQ(fcntl(ends[0], F_GETFD), -1);
    close(ends[1]);
}

TEST(LatencyTargetTest, KeepsTheDeviceOpenButNotInChildren) {
    Child child([] {
        if (access("/dev/cpu_dma_latency", R_OK | W_OK) != 0) {
            // A kernel without the device, or a user without the right.
            return Throws<VeException>([] { TimerService::SetLatencyTarget(); },
                                       std::string("SetLatencyTarget: Could not open /dev/cpu_dma_latency: ") +
                                           std::generic_category().message(errno))
                       ? 0
                       : 1;
        }
        const int next = dup(0);
        close(next);
        TimerService::SetLatencyTarget();
        TimerService::SetLatencyTarget();
        return (fcntl(next, F_GETFD) & FD_CLOEXEC) != 0 && (fcntl(next + 1, F_GETFD) & FD_CLOEXEC) != 0 ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0);
}

}  // namespace
