#pragma once

#include "Test.h"

#include <list>

/// For services that call a function in a thread of their own: threads and timers.
class CallerTest : public FactoryTest {
protected:
    CallerTest() {
        // Sanitizers start a thread of their own beside the first.
        std::thread([] {}).join();
        threads = CountThreads();
    }

    /// A child of the next test's would have what the threads of this one own, and not them.
    ~CallerTest() override {
        WaitUntil([this] { return CountThreads() <= threads; });
    }

    /// Keeps a function until the test ends. Returns the argument for `Call` to call it.
    void* Keep(std::function<void()> function) {
        functions.push_back(std::move(function));
        return &functions.back();
    }

    static void* Call(void* function) {
        (*static_cast<std::function<void()>*>(function))();
        return nullptr;
    }

    /// Expects a service that calls `postAndWait` to run with its settings, with those that are changed meanwhile, and
    /// again with these. It has the name "0123456789abcdefgh" and is bound to the first processor.
    template <typename Service>
    void ExpectToRunWithItsSettings(Service& service, void (Service::*start)(), void (Service::*end)()) {
        const auto runAndChange = [&](unsigned int newPriority) {
            (service.*start)();
            called.Wait(0);
            service.SetName("the name after, cut");
            service.SetPriority(newPriority);
            go.Post();
            (service.*end)();
            return settings;
        };
        const unsigned int priority = MayHaveRealTimePriority() ? 1 : 0;
        const std::string changed = "the name after,, " + std::string(priority == 1 ? "real-time 1" : "normal 0");
        EXPECT_EQ(runAndChange(priority), "0123456789abcde, normal 0, 1 from 0; " + changed + ", 1 from 0");
        EXPECT_EQ(runAndChange(0), changed + ", 1 from 0; the name after,, normal 0, 1 from 0");
        EXPECT_EQ(service.GetName(), "the name after,");
        if (priority == 0) {
            GTEST_SKIP() << needsRealTime;
        }
    }

    std::ptrdiff_t threads;
    std::string settings;
    SemaphoreService called{0};
    SemaphoreService go{0};
    const std::function<void()> postAndWait = [this] {
        settings = OwnSettings();
        called.Post();
        go.Wait(0);
        settings += "; " + OwnSettings();
    };

private:
    std::list<std::function<void()>> functions;
};
