#include "Scenes.h"

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/ISemaphoreService.h>
#include <Kel/System/Ve/ITimerService.h>
#include <Kel/System/Ve/Internal/Linux/TimerService.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

using Kel::System::Ve::ISemaphoreService;
using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Adapters::Owned;
using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::ServiceFactory;
using Kel::System::Ve::Internal::Linux::TimerService;

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned int periodInMicroseconds = 1000;
constexpr std::size_t periods = 2000;

struct Record {
    std::vector<Clock::time_point> calls;
    const Owned<ISemaphoreService> full;
};

void RecordCall(void* argument) {
    auto& record = *static_cast<Record*>(argument);
    if (record.calls.size() < record.calls.capacity()) {
        record.calls.push_back(Clock::now());
        if (record.calls.size() == record.calls.capacity()) {
            record.full->Post();
        }
    }
}

void ShowLateness(Narrator& narrator, const std::vector<Clock::time_point>& calls) {
    std::vector<double> lateness;
    for (std::size_t i = 1; i < calls.size(); ++i) {
        const auto deadline = calls[0] + i * std::chrono::microseconds(periodInMicroseconds);
        lateness.push_back(std::chrono::duration<double, std::micro>(calls[i] - deadline).count());
    }
    std::sort(lateness.begin(), lateness.end());
    const std::array<double, 9> limits = {5, 10, 20, 50, 100, 200, 500, 1000, 1e9};
    auto from = lateness.begin();
    for (const double limit : limits) {
        const auto to = std::lower_bound(from, lateness.end(), limit);
        const auto count = static_cast<std::size_t>(to - from);
        std::ostringstream line;
        if (limit < 1e9) {
            line << "  below " << std::setw(4) << limit << " us " << std::setw(5) << count;
        } else {
            line << "  and above     " << std::setw(5) << count;
        }
        narrator.Say(line.str() + "  " + std::string((count * 50 + lateness.size() - 1) / lateness.size(), '#'));
        from = to;
    }
    std::ostringstream summary;
    summary << std::fixed << std::setprecision(1) << "Lateness: median " << lateness[lateness.size() / 2]
            << " us, 99th percentile " << lateness[lateness.size() * 99 / 100] << " us, maximum " << lateness.back()
            << " us";
    narrator.Say(summary.str());
}

void RunTimer(Narrator& narrator, ServiceFactory& factory, unsigned int priority) {
    Record record{{}, Own(factory.CreateSemaphore(0))};
    record.calls.reserve(periods);
    const auto timer = Own(factory.CreateTimer(periodInMicroseconds, "tour-timer", priority, &record, &RecordCall, 0));
    timer->Start();
    const bool full = record.full->Wait(60000);
    timer->Stop();
    narrator.Check(full, "called " + std::to_string(record.calls.size()) + " times, once a millisecond");
    const auto elapsed = record.calls.back() - record.calls.front();
    narrator.Check(elapsed + std::chrono::milliseconds(1) >= (periods - 1) * std::chrono::milliseconds(1),
                   "and never ahead of the schedule");
    ShowLateness(narrator, record.calls);
}

}  // namespace

void ShowTimer(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Timers: a handler a thousand times a second, for two seconds");
    narrator.Say("With normal priority:");
    RunTimer(narrator, factory, 0);
    narrator.Say("With real-time priority 80, and the processors asked to wake up as fast as they can:");
    try {
        TimerService::SetLatencyTarget();
    } catch (const VeException& exception) {
        narrator.Say(exception.GetMessage());
        narrator.Say(
            "The kernel may lack the device; else run as root, or let a udev rule give the user the right to it.");
    }
    try {
        RunTimer(narrator, factory, 80);
    } catch (const VeException& exception) {
        narrator.Say(exception.GetMessage());
        narrator.SayHowToGetRealTime();
    }
}
