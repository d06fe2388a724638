#pragma once

#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
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

/// Sees all calls of functions that can be made to fail, made in any thread or child of this process, while it is
/// installed. Calls that such a function makes itself are not seen.
class CallWatcher {
public:
    enum class Verdict {
        GoesThrough,
        /// The function is not called; its result is `result`.
        Replaced,
        /// The function is called, but its result is `result`.
        Contradicted,
    };

    /// Says what becomes of a call, with errno as it is to be after one that does not go through.
    virtual Verdict Judge(const char* function, void* argument, std::intptr_t& result) = 0;

    /// Makes all calls of this thread go through unseen.
    static void IgnoreThisThread();

    static std::atomic<CallWatcher*> installed;

protected:
    ~CallWatcher() = default;
};

/// How many blocks of memory made by operator new there are.
long LiveAllocations();

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
