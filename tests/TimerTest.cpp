#include "support/CallerTest.h"

#include <fcntl.h>
#include <sys/prctl.h>

namespace {

// A wait that lasts as long is a hang.
constexpr unsigned int oneHour = 3600000000;

class TimerTest : public CallerTest {
protected:
    std::unique_ptr<ITimerService> Make(unsigned int period, std::function<void()> handler,
                                        const BasicString& name = BasicString::Empty, unsigned int mask = 0) {
        const auto call = [](void* function) { static_cast<void>(Call(function)); };
        return Own(factory->CreateTimer(period, name, 0, Keep(std::move(handler)), call, mask));
    }

    static void ExpectStarted(ITimerService& timer) {
        EXPECT_TRUE(ComesTo([&] { timer.Start(); }, "VeException: Start: Timer was started yet!"));
    }

    const std::function<void()> post = [this] { called.Post(); };
};

TEST_F(TimerTest, CallsAtOnceAndThenAtDeadlinesThatDoNotDrift) {
    const Interposition clock("clock_gettime", [](const auto& arguments) {
        EXPECT_EQ(arguments[0], CLOCK_MONOTONIC);
        *Interposition::Pointer<timespec>(arguments[1]) = {7, 999000000};
        return 0;
    });
    for (const long long period : {0U, 1000U, 1000000U, 2500000U, 4294967295U}) {
        // The deadlines that are waited for, and -1 for each call of the handler.
        std::vector<long long> log;
        const Interposition wait("pthread_cond_timedwait", [&](const auto& arguments) {
            const auto& deadline = *Interposition::Pointer<const timespec>(arguments[2]);
            EXPECT_LE(deadline.tv_nsec, 999999999);
            log.push_back((deadline.tv_sec - 7) * 1000000000LL + deadline.tv_nsec - 999000000);
            // The first wait ends without reason.
            return log.size() == 2 ? 0 : ETIMEDOUT;
        });
        std::unique_ptr<ITimerService> timer = Make(static_cast<unsigned int>(period), [&] {
            log.push_back(-1);
            // User-mode emulation does not pass it on.
            EXPECT_TRUE(prctl(PR_GET_TIMERSLACK) == 1 || IsEmulated());
            if (log.size() > 5) {
                timer->Stop();
                called.Post();
            }
        });
        timer->Start();
        called.Wait(0);
        timer->Stop();
        EXPECT_EQ(log, (std::vector<long long>{-1, period * 1000, period * 1000, -1, period * 2000, -1}));
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
    WaitUntil([&] { return called.GetValue() > 30; });
    const auto silent = Own(factory->CreateTimer(0, "", 0, nullptr, nullptr, 0));
    silent->Start();
    // Without a start there is nothing to run.
    TimerService(0, "", 0, 0).Run();
}

TEST_F(TimerTest, StopWaitsForACallAlsoForOneThatHasStoppedTheTimerItself) {
    for (const bool stopsItself : {false, true}) {
        std::atomic<bool> hasEnded{false};
        std::unique_ptr<ITimerService> timer = Make(oneHour, [&] {
            if (stopsItself) {
                timer->Stop();
                ExpectStarted(*timer);
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
        EXPECT_TRUE(ComesTo(
            [&] { dynamic_cast<TimerServiceBase&>(*timer).SetHandler(nullptr, nullptr); },
            stopsItself ? "done"
                        : "VeException: SetHandler: Changing handlers of an already started timer is not possible."));
        go.Post();
        first.join();
        second.join();
    }
}

TEST_F(TimerTest, RunsWithItsSettingsAndWithThoseThatAreChanged) {
    const auto timer = Make(oneHour, postAndWait, "0123456789abcdefgh", 1);
    ExpectToRunWithItsSettings(*timer, &ITimerService::Start, &ITimerService::Stop);
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
    ExpectFailures(
        {{"pthread_setname_np", [&] { timer->Start(); },
          "VeException: ChangeName: Could not set threadname of timer, linux error code: Invalid argument"}});
    timer->Stop();
    while (called.TryWait()) {
    }
    called.Wait(0);
    timer->Start();
    ExpectStarted(*timer);
}

// Each fails late, and has to end the thread that another has left.
TEST_F(TimerTest, StartsAtTheSameTimeLeaveNoTwoThreads) {
    const Interposition naming("pthread_setname_np", [](const auto& /*arguments*/) { return EINVAL; });
    std::atomic<int> inside{0};
    const auto handler = [&] {
        EXPECT_EQ(++inside, 1);
        std::this_thread::yield();
        --inside;
    };
    const auto timer = Make(200, handler, "name");
    const auto startAgainAndAgain = [&] {
        for (int i = 0; i < 500; ++i) {
            EXPECT_THROW(timer->Start(), VeException);
        }
    };
    std::thread other(startAgainAndAgain);
    startAgainAndAgain();
    other.join();
}

TEST_F(TimerTest, MayBeDeletedByItsHandler) {
    std::unique_ptr<ITimerService> timer = Make(0, [&] {
        timer.reset();
        called.Post();
    });
    timer->Start();
    called.Wait(0);
}

TEST_F(TimerTest, CanBeStartedAfterACancelledStopAndIsDeletedWithoutCancellation) {
    auto timer = Make(oneHour, postAndWait);
    timer->Start();
    called.Wait(0);
    EXPECT_FALSE(HasNoCancellationPoint([&] { timer->Stop(); }));
    go.Post();
    timer->Start();
    called.Wait(0);
    const Interposition waiting("pthread_cond_wait", [&](const auto& arguments) {
        pthread_testcancel();
        go.Post();
        return waiting.CallThrough(arguments);
    });
    EXPECT_TRUE(HasNoCancellationPoint([&] { timer.reset(); }));
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
