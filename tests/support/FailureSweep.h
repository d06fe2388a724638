#pragma once

#include "FailingCall.h"
#include "Scenarios.h"

#include <sys/types.h>

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <vector>

/// Runs scenarios again and again, each time in a child of its own and with another one of the calls in it failing,
/// until each has failed once: those that the scenario's thread makes in its steps, that the threads make which it
/// starts, and that its children make before they become other programs. A code that is returned is EINVAL, errno is
/// EACCES, also when it is not errno that tells. What gives something back or wakes someone does so, and fails then.
class FailureSweep final : Steps, CallWatcher {
public:
    enum class Of { Calls, Allocations };

    explicit FailureSweep(Of failing);
    ~FailureSweep();

    void Run(const Scenario& scenario);

    /// A line for each step that comes to anything to be seen, and for each failure: the step, the call, what came of
    /// it ("nothing", if that is what comes of the step without the failure), what came of doing the step again, if it
    /// still failed, and what was left behind. One line for several calls of a step that come to the same; for
    /// allocations, one for each outcome of a step.
    const std::vector<std::string>& GetLines() const { return lines; }

    int GetFailures() const { return failures; }

private:
    enum class Context { Scenario, Thread, Child };

    struct Call {
        Context context;
        int step;
        const char* function;
        int occurrence;

        bool IsLike(const Call& other) const {
            return function == other.function && context == other.context && step == other.step;
        }
    };

    using Place = std::array<char, 400>;

    struct Step {
        const char* name;
        Place outcome;
        Place again;
    };

    // What a child tells, in memory shared with it.
    struct Report {
        std::array<Call, 2000> calls;
        std::atomic<int> callCount;
        std::array<Step, 100> steps;
        int stepCount;
        std::atomic<bool> failed;
        // Why the process ended, if it did.
        Place end;
        Place leftovers;
    };

    static constexpr int none = -1;

    void LeaveOut(const char* function) override { leftOut = function; }
    void WaitForCall(const char* function) override;
    void BeginHelper() override { IgnoreThisThread(); }
    void Do(const char* name, bool again, const std::function<void()>& operation,
            const std::function<std::string()>& outcome) override;
    Verdict Judge(const char* function, void* argument, std::intptr_t& result) override;

    void RunInChild(const Scenario& scenario, const Call* failing);
    void RunUntilMemoryStays(const Scenario& scenario);
    std::string Outcome(const Call& call) const;
    std::string Line(const Scenario& scenario, const Call& call, bool isNumbered) const;
    [[noreturn]] static void EndProcess();

    static FailureSweep* running;

    const Of of;
    Report* const report;
    std::vector<std::string> lines;
    int failures = 0;

    // What the steps come to without a failure.
    std::vector<Step> expected;
    const Call* target = nullptr;
    const char* leftOut = "";
    std::atomic<int> step{none};
    std::atomic<int> stepOfThread{none};
    pid_t processId = 0;
};
