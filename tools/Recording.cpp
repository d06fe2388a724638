#include "Recording.h"

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Internal/Linux/LockedMemorySegment.h>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <iomanip>
#include <iostream>

using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Internal::ServiceFactory;
using Kel::System::Ve::Internal::Linux::LockedMemorySegment;

namespace {

using Clock = std::chrono::steady_clock;

class Calls {
public:
    explicit Calls(std::size_t count) : times(count) {
        // The deadlines are counted from the first call, which must not wait for the pages of what it runs.
        Store(this);
        stored = 0;
    }

    // The timer's handler: it reads the clock and stores.
    static void Store(void* self) {
        auto& calls = *static_cast<Calls*>(self);
        const std::size_t index = calls.stored.load(std::memory_order_relaxed);
        if (index < calls.times.size()) {
            calls.times[index] = Clock::now();
            calls.stored.store(index + 1, std::memory_order_release);
        }
    }

    // For as long as what it returns lives.
    LockedMemorySegment Lock() {
        return {times.data(), static_cast<std::uint32_t>(times.size() * sizeof(Clock::time_point))};
    }

    std::size_t Stored() const { return stored.load(std::memory_order_acquire); }
    bool IsComplete() const { return Stored() == times.size(); }

    // Of the calls that have been stored, without the first.
    std::vector<double> LatenessUs(unsigned int periodUs) const {
        const std::size_t count = Stored();
        const Clock::duration period = std::chrono::microseconds(periodUs);
        const auto offset = [&](std::size_t i) { return times[i] - times[0] - period * static_cast<std::int64_t>(i); };
        // No timer is early. If one seems to be, the first call was held up.
        Clock::duration earliest{0};
        for (std::size_t i = 1; i < count; ++i) {
            earliest = std::min(earliest, offset(i));
        }
        std::vector<double> lateness;
        lateness.reserve(count);
        for (std::size_t i = 1; i < count; ++i) {
            lateness.push_back(std::chrono::duration<double, std::micro>(offset(i) - earliest).count());
        }
        return lateness;
    }

private:
    std::vector<Clock::time_point> times;
    std::atomic<std::size_t> stored{0};
};

// The signals that end a run, kept for whoever waits for them: this thread, and those that it makes.
class EndSignals {
public:
    EndSignals() {
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, &previous);
    }
    ~EndSignals() { pthread_sigmask(SIG_SETMASK, &previous, nullptr); }

    EndSignals(const EndSignals&) = delete;
    EndSignals& operator=(const EndSignals&) = delete;

    /// Returns whether one has come within the time.
    bool ComeWithin(std::chrono::milliseconds time) const {
        const timespec timeout{static_cast<time_t>(time.count() / 1000),
                               static_cast<long>(time.count() % 1000) * 1000000};
        return sigtimedwait(&signals, nullptr, &timeout) > 0;
    }

private:
    sigset_t signals{};
    sigset_t previous{};
};

}  // namespace

std::uint64_t Settings::Periods() const { return std::uint64_t{seconds} * 1000000 / periodUs; }

Recording Record(ServiceFactory& factory, const Settings& settings) {
    using std::chrono::milliseconds;
    const bool isTerminal = isatty(STDERR_FILENO) == 1;
    const milliseconds step(isTerminal ? 200 : 1000);
    const auto periods = static_cast<std::size_t>(settings.Periods());
    Calls calls(periods + 1);
    const Setup setup = SetUp(factory, settings.wishes);
    const LockedMemorySegment locked = calls.Lock();
    const EndSignals endSignals;
    const auto timer = Own(factory.CreateTimer(settings.periodUs, "ve-jitter", settings.priority, &calls, &Calls::Store,
                                               settings.processors));
    timer->Start();
    const auto start = Clock::now();
    // A busy machine makes up for what it has missed; one that cannot keep the pace never would.
    const auto end = start + std::chrono::seconds(settings.seconds) + std::chrono::seconds(3);
    for (auto next = start + step; !calls.IsComplete() && next < end; next += step) {
        const auto untilNext = std::chrono::ceil<milliseconds>(next - Clock::now());
        if (endSignals.ComeWithin(std::clamp(untilNext, milliseconds(1), step))) {
            break;
        }
        std::cerr << (isTerminal ? "\r" : "")
                  << std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count() << " s of "
                  << settings.seconds << " s, " << calls.Stored() << " calls " << (isTerminal ? "" : "\n")
                  << std::flush;
    }
    if (isTerminal) {
        std::cerr << '\n';
    }
    const auto periodsPassed =
        static_cast<std::size_t>((Clock::now() - start) / std::chrono::microseconds(settings.periodUs));
    timer->Stop();
    // What follows allocates, perhaps more than may be locked.
    munlockall();
    Recording recording{calls.LatenessUs(settings.periodUs), 0, setup};
    const std::size_t due = std::min(periods, periodsPassed == 0 ? 0 : periodsPassed - 1);
    recording.neverMade = due - std::min(due, recording.latenessUs.size());
    return recording;
}
