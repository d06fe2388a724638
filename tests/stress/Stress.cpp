// Threads that make, use, share and delete every kind of service at random, with children and other processes that are
// killed meanwhile. Succeeds when each operation has done what it promises and nothing is left behind.

#include "Stress.h"

#include "../../tools/Program.h"
#include "../support/OwnCounts.h"
#include "../support/PluginPath.h"
#include "../support/Scenarios.h"

#include <dlfcn.h>
#include <mqueue.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <iostream>
#include <limits>
#include <sstream>
#include <thread>

using Kel::System::Ve::Internal::ServiceFactory;
using std::chrono::seconds;
using std::chrono::steady_clock;

// The thread sanitizer does not see the locks that the loader and the C library have inside: what one thread frees
// there and another gets, or another reads while it has the library open, counts as a race. Named by their files, for
// the names of the functions are with the debugging symbols, which a machine need not have.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that it looks for.
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:/ld-linux\ncalled_from_lib:/libc.so\n"; }

namespace {

std::atomic<unsigned int> namesGiven{0};
std::atomic<unsigned int> failures{0};
std::atomic<bool> isOver{false};
std::vector<Work> works;

struct Worker {
    // What the worker does, and how often it has done something.
    std::atomic<const Work*> work{nullptr};
    std::atomic<unsigned long> rounds{0};
    std::vector<unsigned long> roundsOfWorks = std::vector<unsigned long>(works.size());
    // When it was seen to have come on.
    unsigned long roundsSeen = 0;
    steady_clock::time_point seen = steady_clock::now();
};

thread_local Worker* self = nullptr;

void Labour(Worker& worker, unsigned int seed) {
    self = &worker;
    Random random(seed);
    std::vector<double> weights(works.size());
    std::transform(works.begin(), works.end(), weights.begin(), [](const Work& work) { return work.weight; });
    std::discrete_distribution<std::size_t> choice(weights.begin(), weights.end());
    std::minstd_rand choices(seed);
    while (!isOver) {
        const std::size_t index = choice(choices);
        worker.work = &works[index];
        const std::string thrown = Thrown([&] { works[index].run(random); });
        Require(thrown.empty(), "nothing else must be thrown: " + thrown);
        ++worker.rounds;
        ++worker.roundsOfWorks[index];
    }
}

// Returns how far the workers are. Ends the program when one has not come on for a minute.
unsigned long Supervise(std::deque<Worker>& workers) {
    unsigned long all = 0;
    for (Worker& worker : workers) {
        const unsigned long rounds = worker.rounds;
        all += rounds;
        if (std::exchange(worker.roundsSeen, rounds) != rounds) {
            worker.seen = steady_clock::now();
        } else if (steady_clock::now() - worker.seen > seconds(60)) {
            const Work* const work = worker.work;
            std::cerr << "a thread has been at '" << (work != nullptr ? work->name : "") << "' for a minute"
                      << std::endl;
            std::abort();
        }
    }
    return all;
}

struct Settings {
    unsigned int seconds = 10;
    unsigned int threads = 8;
    unsigned int seed = std::random_device()();
};

constexpr char usage[] =
    "usage: ve-stress [--seconds N] [--threads N] [--seed N]\n"
    "\n"
    "  --seconds N  how long (10)\n"
    "  --threads N  how many threads (8)\n"
    "  --seed N     what the choices of the threads follow from; another one each time unless given\n";

/// Returns the first line of a file that has the text in it, from there on.
std::string LineWith(const std::string& path, const std::string& text) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (const auto place = line.find(text); place != std::string::npos) {
            return line.substr(place + text.size());
        }
    }
    return "";
}

/// Returns a value of what the kernel tells of this process's memory, in KiB.
long Memory(const std::string& name) { return std::stol(LineWith("/proc/self/status", name + ":")); }

void Stress(const Settings& settings) {
    std::deque<Worker> workers(settings.threads);
    const Peers peers(settings.seed);
    const long memoryAtStart = Memory("VmRSS");
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < settings.threads; ++i) {
        threads.emplace_back(Labour, std::ref(workers[i]), settings.seed + i);
    }
    const auto start = steady_clock::now();
    const unsigned int step = isatty(STDOUT_FILENO) != 0 ? 1 : 10;
    long memoryWhenWarm = 0;
    for (unsigned int second = 1; second <= settings.seconds && failures == 0; ++second) {
        std::this_thread::sleep_until(start + seconds(second));
        const unsigned long rounds = Supervise(workers);
        if (memoryWhenWarm == 0 && second >= settings.seconds / 10) {
            memoryWhenWarm = Memory("VmRSS");
        }
        if (second % step == 0) {
            std::printf("%6u s %12lu rounds %8ld KiB resident %6td descriptors %6u peers killed\n", second, rounds,
                        Memory("VmRSS"), OpenDescriptors(), Peers::CountKilled());
            static_cast<void>(std::fflush(stdout));
        }
    }
    isOver = true;
    std::atomic<bool> haveEnded{false};
    std::thread supervisor([&] {
        while (!haveEnded) {
            Supervise(workers);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::printf("\nrounds of each kind:\n");
    for (std::size_t i = 0; i < works.size(); ++i) {
        unsigned long rounds = 0;
        for (const Worker& worker : workers) {
            rounds += worker.roundsOfWorks[i];
        }
        std::printf("  %-40s %12lu\n", works[i].name.c_str(), rounds);
    }
    works.clear();
    haveEnded = true;
    supervisor.join();
    std::printf("peers killed: %u\n", Peers::CountKilled());
    std::printf("resident memory: %ld KiB at the start, %ld after a tenth of the time, %ld at the end, %ld at most\n",
                memoryAtStart, memoryWhenWarm, Memory("VmRSS"), Memory("VmHWM"));
}

void RequireNothingLeft(const Belongings& before) {
    const std::string more = before.More();
    Require(more.empty(), "there must not be" + more);
    const std::string name = RunName().substr(1);
    for (const char* const directory : {"/dev/shm", "/tmp"}) {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            Require(entry.path().string().find(name) == std::string::npos, entry.path().string() + " must not be left");
        }
    }
    // Where queues can be listed depends on the machine.
    for (unsigned int number = 0; number <= namesGiven; ++number) {
        const std::string queue = number == 0 ? RunName() : RunName() + "-" + std::to_string(number);
        Require(mq_unlink(queue.c_str()) == -1, "the queue " + queue + " must not be left");
    }
    Require(dlopen(PluginPath().c_str(), RTLD_NOW | RTLD_NOLOAD) == nullptr, "no library must be left loaded");
    Require(LineWith("/proc/net/unix", name).empty(), "no local socket must be left");
}

}  // namespace

Kel::System::Ve::Internal::IServiceFactory& Factory() { return *ServiceFactory::GetInstance(); }

const std::string& RunName() {
    static const std::string name = "/ve-stress-" + std::to_string(getpid());
    return name;
}

std::string NewName() { return RunName() + "-" + std::to_string(++namesGiven); }

void Require(bool holds, const std::string& what) {
    if (!holds) {
        ++failures;
        std::ostringstream text;
        text << (self != nullptr ? self->work.load()->name : "ve-stress") << ": " << what << "\n";
        std::cerr << text.str() << std::flush;
    }
}

void RequireOneOf(const std::string& thrown, std::initializer_list<std::string> expected) {
    const auto matches = [&](const std::string& text) {
        const std::size_t dots = text.rfind("...");
        return dots != std::string::npos ? thrown.compare(0, dots, text, 0, dots) == 0 : thrown == text;
    };
    Require(std::any_of(expected.begin(), expected.end(), matches), "must not come out: '" + thrown + "'");
}

int main(int count, char** arguments) {
    Settings settings;
    Options options("ve-stress", usage);
    constexpr unsigned int most = std::numeric_limits<unsigned int>::max();
    options.AddNumber("seconds", settings.seconds, 1, most);
    options.AddNumber("threads", settings.threads, 1, most);
    options.AddNumber("seed", settings.seed, 0, most);
    return Run(options, count, arguments, [&](ServiceFactory&) {
        std::cout << "ve-stress --seconds " << settings.seconds << " --threads " << settings.threads << " --seed "
                  << settings.seed << std::endl;
        // Sanitizers start a thread of their own beside the first.
        std::thread([] {}).join();
        const Belongings before;
        const std::ptrdiff_t descriptors = OpenDescriptors();
        works = MakeWorks();

        Stress(settings);

        RequireNothingLeft(before);
        std::printf("descriptors: %td at the start, %td at the end\n", descriptors, OpenDescriptors());
        if (failures != 0) {
            std::printf("%u failures\n", failures.load());
            return EXIT_FAILURE;
        }
        std::printf("nothing is left behind\n");
        return EXIT_SUCCESS;
    });
}
