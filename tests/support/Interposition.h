#pragma once

#include <time.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

/// While it lives, the calls that the library makes of a C-library function come here instead, in all threads: the
/// function's address in the library's table is replaced. Calls made by anyone else, the test included, are not
/// affected. Throws when the library does not call the function.
class Interposition {
public:
    /// The arguments, one a machine word. Those that the function does not have are undefined.
    using Arguments = std::array<std::intptr_t, 8>;
    using Replacement = std::function<std::intptr_t(const Arguments& arguments)>;

    Interposition(const char* function, Replacement newReplacement);
    ~Interposition();

    Interposition(const Interposition&) = delete;
    Interposition& operator=(const Interposition&) = delete;

    /// Returns an argument that is a pointer.
    template <typename T>
    static T* Pointer(std::intptr_t argument) {
        return reinterpret_cast<T*>(argument);  // NOLINT(performance-no-int-to-ptr)
    }

    /// Calls the function itself.
    std::intptr_t CallThrough(const Arguments& arguments) const;

private:
    using Function = std::intptr_t (*)(std::intptr_t, std::intptr_t, std::intptr_t, std::intptr_t, std::intptr_t,
                                       std::intptr_t, std::intptr_t, std::intptr_t);

    template <std::size_t index>
    static std::intptr_t Enter(std::intptr_t a, std::intptr_t b, std::intptr_t c, std::intptr_t d, std::intptr_t e,
                               std::intptr_t f, std::intptr_t g, std::intptr_t h);
    void SetEntries(Function function) const;

    // Each replaced function enters by another address, which tells it apart.
    static std::array<std::atomic<const Interposition*>, 3> entered;

    const Replacement replacement;
    const std::vector<Function*> entries;
    const Function original;
    std::size_t index = 0;
};

/// Returns the arguments of each call of a function that the library makes, in all threads, while `operation` runs.
std::vector<Interposition::Arguments> CallsOf(const char* function, const std::function<void()>& operation);

/// Runs `operation`, and once more when it calls `function` for the first time, as another thread might. Returns how
/// often `function` is called.
int CountCallsOfTwo(const char* function, const std::function<void()>& operation);

/// While it lives, one call that this thread has the library make of a function fails without being made; one that is
/// never made fails the test. A function that returns the number of an error returns EINVAL, with EACCES in errno; all
/// others fail with EACCES (those of the tracer with -EACCES). So a text that comes from the wrong one is noticed.
class FailingCall {
public:
    /// `skip` calls go through first. `errorNumber` replaces the error's number, unless it is 0.
    explicit FailingCall(const char* function, int skip = 0, int errorNumber = 0);
    ~FailingCall();

    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;

private:
    const char* const name;
    const std::thread::id thread = std::this_thread::get_id();
    // Of the calls that are still to go through; negative once the failure has happened.
    int remaining;
    const Interposition interposition;
};

/// While it lives, an allocation that this thread makes by operator new fails, after `skip` others.
class FailingAllocation {
public:
    explicit FailingAllocation(int skip);
    ~FailingAllocation();

    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;

    static bool HasHappened();
};

/// How many blocks of memory have been made by operator new in this process.
long MadeAllocations();

/// How many of them there are.
long LiveAllocations();
