// How a real-time timer fares while its process, which is large, starts others: ve-bench-start WAY SECONDS, where WAY
// is "library", "fork" or "none". The timer's handler writes to memory, as a control loop does: to the pages that a
// fork has made read-only until then.

#include "Expect.h"
#include "Factory.h"
#include "Resident.h"

#include <Kel/System/Ve/IProcessService.h>
#include <Kel/System/Ve/ITimerService.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

using Clock = std::chrono::steady_clock;
using Durations = std::vector<Clock::duration>;
using Kel::System::Ve::IProcessService;
using Kel::System::Ve::ITimerService;

namespace {

constexpr std::chrono::milliseconds period(1);
constexpr unsigned int priority = 80;
constexpr unsigned int secondProcessor = 2;
constexpr std::size_t residentSize = std::size_t{1} << 30U;
constexpr std::size_t pageSize = 4096;
constexpr int pagesPerPeriod = 32;

struct Timer {
    char* memory;
    Durations late;
    Durations writing;
    Clock::time_point first;
    std::minstd_rand pages;
};

void Handle(void* argument) {
    auto& timer = *static_cast<Timer*>(argument);
    const auto start = Clock::now();
    if (timer.first == Clock::time_point()) {
        timer.first = start;
    }
    for (int i = 0; i < pagesPerPeriod; ++i) {
        ++timer.memory[timer.pages() % (residentSize / pageSize) * pageSize];
    }
    if (timer.late.size() < timer.late.capacity()) {
        timer.late.push_back(start - timer.first - timer.late.size() * period);
        timer.writing.push_back(Clock::now() - start);
    }
}

void StartByLibrary(Durations& starting) {
    const std::unique_ptr<IProcessService> process(Factory().CreateProcess());
    const auto before = Clock::now();
    process->Start("", "/bin/true", "");
    starting.push_back(Clock::now() - before);
    while (!process->HasExited()) {
        std::this_thread::sleep_for(period);
    }
}

void StartByFork(Durations& starting) {
    const auto before = Clock::now();
    const pid_t child = fork();
    if (child == 0) {
        execl("/bin/true", "/bin/true", nullptr);
        _exit(1);
    }
    starting.push_back(Clock::now() - before);
    Expect(child > 0 && waitpid(child, nullptr, 0) == child);
}

void Print(const char* name, Durations& durations) {
    Expect(!durations.empty());
    std::sort(durations.begin(), durations.end());
    const auto at = [&durations](double part) {
        const auto index = static_cast<std::size_t>(part * static_cast<double>(durations.size() - 1));
        return std::chrono::duration<double, std::micro>(durations[index]).count();
    };
    std::printf("%-16s %6zu times, in microseconds: median %.1f, 99 %% %.1f, 99.9 %% %.1f, maximum %.1f\n", name,
                durations.size(), at(0.5), at(0.99), at(0.999), at(1));
}

void Measure(const std::string& way, std::chrono::seconds duration) {
    const Resident resident(residentSize);
    Timer state{resident.Bytes(), {}, {}, {}, {}};
    const auto periods = static_cast<std::size_t>(duration / period);
    state.late.reserve(periods);
    state.writing.reserve(periods);
    Durations starting;
    const std::unique_ptr<ITimerService> timer(Factory().CreateTimer(std::chrono::microseconds(period).count(), "bench",
                                                                     priority, &state, &Handle, secondProcessor));
    timer->Start();
    for (const auto end = Clock::now() + duration; Clock::now() < end;) {
        if (way == "library") {
            StartByLibrary(starting);
        } else if (way == "fork") {
            StartByFork(starting);
        }
        std::this_thread::sleep_for(20 * period);
    }
    timer->Stop();
    Print("timer's lateness", state.late);
    Print("timer's writing", state.writing);
    if (way != "none") {
        Print("starting", starting);
    }
}

}  // namespace

int main(int count, char** arguments) {
    Expect(count == 3);
    const Runtime runtime;
    Measure(arguments[1], std::chrono::seconds(std::atoi(arguments[2])));
}
