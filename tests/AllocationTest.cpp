#include "support/Test.h"

#include <string_view>

namespace {

// While it lives, counts the allocations of all threads.
class CountedAllocations final : CallWatcher {
public:
    CountedAllocations() { installed = this; }
    ~CountedAllocations() { installed = nullptr; }
    CountedAllocations(const CountedAllocations&) = delete;
    CountedAllocations& operator=(const CountedAllocations&) = delete;

    int Get() const { return count; }

private:
    Verdict Judge(const char* function, void* /*argument*/, std::intptr_t& /*result*/) override {
        count += function == std::string_view("operator new") ? 1 : 0;
        return Verdict::GoesThrough;
    }

    std::atomic<int> count{0};
};

using AllocationTest = FactoryTest;

// What else a control loop does again and again stands in failures.txt, without an allocation that could fail.
TEST_F(AllocationTest, TimerThatRunsAllocatesNothing) {
    std::atomic<int> calls{0};
    const auto handler = [](void* argument) { ++*static_cast<std::atomic<int>*>(argument); };
    const std::unique_ptr<ITimerService> timer(factory->CreateTimer(100, "", 0, &calls, handler, 0));
    const auto waitForCalls = [&](int count) {
        while (calls < count) {
            std::this_thread::yield();
        }
    };
    timer->Start();
    waitForCalls(1);
    const CountedAllocations allocations;
    waitForCalls(calls + 5);
    EXPECT_EQ(allocations.Get(), 0);
    timer->Stop();
}

}  // namespace
