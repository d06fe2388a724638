// A control loop: a timer calls it every millisecond, with real-time priority where that is permitted. It brings a
// motor to its speed. What it needs is allocated before it starts; it neither allocates nor prints nor waits.

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Adapters/Runtime.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <iostream>

using namespace Kel::System::Ve;
using Adapters::Own;
using Internal::ServiceFactory;
using Clock = std::chrono::steady_clock;

namespace {

constexpr unsigned int periodUs = 1000;
constexpr unsigned int cycles = 500;
constexpr double period = periodUs / 1e6;  // seconds
constexpr double target = 100;             // radians a second

class Loop {
public:
    explicit Loop(ISemaphoreService& semaphore) : finished(semaphore) {}

    void Step() {
        if (cycle == cycles) {
            return;  // until the timer is stopped
        }
        calledAt[cycle] = Clock::now();
        // A controller with a proportional and an integral part, and the motor that it drives.
        const double error = target - speed;
        integral += error * period;
        const double voltage = std::clamp(0.5 * error + 10 * integral, -24.0, 24.0);
        speed += (10 * voltage - speed) / 0.05 * period;
        if (++cycle == cycles) {
            finished.Post();
        }
    }

    double GetSpeed() const { return speed; }

    /// The latest call, counted from when it was due: so many periods after the first.
    std::chrono::microseconds GetWorstLateness() const {
        Clock::duration worst{};
        for (unsigned int i = 0; i < cycles; ++i) {
            worst = std::max(worst, calledAt[i] - calledAt[0] - i * std::chrono::microseconds(periodUs));
        }
        return std::chrono::duration_cast<std::chrono::microseconds>(worst);
    }

    Clock::time_point GetLastCall() const { return calledAt[cycles - 1]; }

private:
    ISemaphoreService& finished;
    unsigned int cycle = 0;
    double speed = 0;
    double integral = 0;
    std::array<Clock::time_point, cycles> calledAt{};
};

bool Run(ServiceFactory& factory) {
    const auto finished = Own(factory.CreateSemaphore(0));
    Loop loop(*finished);
    // Made last, so deleted first: no call comes once what it uses is gone.
    const auto timer = Own(factory.CreateTimer(
        periodUs, "control", 80, &loop, [](void* argument) { static_cast<Loop*>(argument)->Step(); }, 0));
    const Clock::time_point start = Clock::now();
    try {
        timer->Start();
    } catch (const Exceptions::VeException& exception) {
        std::cout << exception.GetMessage() << "\nno right to real-time priority: goes on without\n";
        timer->SetPriority(0);
        timer->Start();
    }
    const bool ended = finished->Wait(60000);  // milliseconds
    timer->Stop();
    if (!ended) {
        return false;
    }
    std::cout << cycles << " cycles, the latest " << loop.GetWorstLateness().count() << " us late; speed "
              << loop.GetSpeed() << " of " << target << "\n";
    // However late some calls were, the rhythm does not drift, and no call is made before its time.
    return loop.GetLastCall() - start >= (cycles - 1) * std::chrono::microseconds(periodUs) &&
           std::abs(loop.GetSpeed() - target) < 1;
}

}  // namespace

int main() {
    const Adapters::Runtime runtime;
    return Run(*runtime) ? 0 : 1;
}
