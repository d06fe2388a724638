#pragma once

#include "Throws.h"

#include <Kel/System/Ve/Exceptions/VeException.h>

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// While it lives, one call that this thread makes of a C-library function, also from inside the library under test,
/// does not reach the function but returns `result` and leaves `errnoAfter` in errno. A call that reports failures by
/// its result gets a decoy as `errnoAfter`: a mix-up of the two shows in the message. Only functions listed in
/// FailingCall.cpp can be made to fail. At the end, a call that was never made fails the test.
class FailingCall {
public:
    /// `skip` calls go through first.
    FailingCall(const char* function, std::intptr_t result, int errnoAfter, int skip = 0);

    /// The call goes through, but runs `hook` before.
    FailingCall(const char* function, std::function<void()> hook, int skip = 0);

    /// The call does not reach the function: `reply` fills in what its pointer argument points to, and it returns
    /// `result`. For poll, ioctl and lttng_list_sessions.
    FailingCall(const char* function, std::intptr_t result, std::function<void(void*)> reply, int skip = 0);

    /// Makes it the call of whichever thread comes first; then none is skipped, and another call of this thread may be
    /// made to fail beside it.
    void InAnyThread();

    ~FailingCall();

    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;

    /// Returns whether `operation` makes such a call, which goes through.
    static bool HappensIn(const std::function<void()>& operation, const char* function);

    /// For the intercepting functions: true when this call is to return `result`.
    static bool Intercepts(const char* function, std::intptr_t& result, void* argument = nullptr);

private:
    const char* function;
    std::intptr_t result;
    int errnoAfter;
    int skip;
    std::function<void()> hook;
    std::function<void(void*)> reply;
    std::atomic<bool> happened{false};
};

/// While it lives, both clocks stand still for this thread, as far as clock_gettime tells.
class StoppedClock {
public:
    explicit StoppedClock(timespec reading);
    ~StoppedClock();

    StoppedClock(const StoppedClock&) = delete;
    StoppedClock& operator=(const StoppedClock&) = delete;
};

/// While it lives, the realtime clock is ahead by that many seconds, as far as clock_gettime tells.
class WallClockJump {
public:
    explicit WallClockJump(long seconds);
    ~WallClockJump();

    WallClockJump(const WallClockJump&) = delete;
    WallClockJump& operator=(const WallClockJump&) = delete;
};

/// While it lives, records the deadlines of all timed waits on condition variables, in nanoseconds.
class RecordedDeadlines {
public:
    RecordedDeadlines();
    ~RecordedDeadlines();

    RecordedDeadlines(const RecordedDeadlines&) = delete;
    RecordedDeadlines& operator=(const RecordedDeadlines&) = delete;

    /// Waits for the first `count` of them.
    std::vector<long long> Get(std::size_t count) const;
};

/// Fails the `skip`+1st allocation with std::bad_alloc; one that was never made does not fail the test.
class FailingAllocation {
public:
    explicit FailingAllocation(int skip);
    ~FailingAllocation();

    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
};

/// How a call that fails tells so: by the code that it returns; by -1 or null, and errno; or, as far as the message
/// goes, by errno although it returns a code.
enum class Told { ByCode, ByErrno, ByNullAndErrno, ByErrnoBesideCode };

/// One row of a table of failures.
struct Failure {
    const char* function;
    std::function<void()> operation;
    /// "{}" stands for the text of the error.
    std::string message;
};

/// Runs each row: the operation must throw exactly this type with exactly the row's message when its call fails. A code
/// that is returned is EINVAL (22), errno is EACCES, also when it is not errno that tells.
template <typename ExceptionType = Kel::System::Ve::Exceptions::VeException>
void ExpectFailures(Told told, const std::vector<Failure>& table) {
    const std::intptr_t results[] = {EINVAL, -1, 0, EINVAL};
    const std::string error = told == Told::ByCode ? "Invalid argument" : "Permission denied";
    for (const Failure& row : table) {
        SCOPED_TRACE(row.function);
        std::string message = row.message;
        if (const auto place = message.find("{}"); place != std::string::npos) {
            message.replace(place, 2, error);
        }
        const FailingCall call(row.function, results[static_cast<std::size_t>(told)], EACCES);
        EXPECT_TRUE(Throws<ExceptionType>(row.operation, message));
    }
}
