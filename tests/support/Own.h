#pragma once

// What this process and its threads have.

#include <Kel/Core/BasicString.h>
#include <Kel/System/Ve/Internal/ProcessServiceBase.h>

#include <pthread.h>
#include <sched.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

inline std::ptrdiff_t CountEntries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

/// Returns how many file descriptors this process has open.
inline std::ptrdiff_t OpenDescriptors() { return CountEntries("/proc/self/fd"); }

/// Returns the number that the next file descriptor will have.
inline int NextDescriptor() {
    const int descriptor = dup(STDIN_FILENO);
    close(descriptor);
    return descriptor;
}

/// Returns how many threads this process has.
inline std::ptrdiff_t CountThreads() { return CountEntries("/proc/self/task"); }

/// Returns a field of what the kernel says of a thread of this process, counted as in proc(5): 3 is the state, 18 the
/// priority that it runs with.
inline std::string ThreadStat(pid_t thread, std::size_t field) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(file, line);
    // After the name in brackets comes the third field.
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    const std::vector<std::string> values{std::istream_iterator<std::string>(fields), {}};
    return values.at(field - 3);
}

/// Returns what this thread runs with: its name, its priority (0 for one without real-time priority), the number of
/// processors that it may run on and the first of these.
inline std::string OwnSettings() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    // Of the kernel: the C library does not know what others have set.
    const int policy = sched_getscheduler(0);
    sched_param parameters{};
    sched_getparam(0, &parameters);
    cpu_set_t processors;
    pthread_getaffinity_np(pthread_self(), sizeof processors, &processors);
    int first = 0;
    while (!CPU_ISSET(first, &processors)) {
        ++first;
    }
    const std::string policyName = policy == SCHED_OTHER ? "normal " : policy == SCHED_FIFO ? "real-time " : "other ";
    return std::string(name) + ", " + policyName + std::to_string(parameters.sched_priority) + ", " +
           std::to_string(CPU_COUNT(&processors)) + " from " + std::to_string(first);
}

/// Returns the path of a library that nothing has loaded yet.
inline Kel::BasicString PluginPath(const std::string& name = "plugin") {
    const Kel::BasicString program = Kel::System::Ve::Internal::ProcessServiceBase::GetCurrentName();
    return program.substr(0, program.rfind('/') + 1) + "libve-tests-" + name + ".so";
}

/// Why a test is skipped.
constexpr char needsRealTime[] = "needs the right to real-time priorities (CAP_SYS_NICE or RLIMIT_RTPRIO)";

inline bool MayHaveRealTimePriority() {
    bool may = false;
    std::thread([&] {
        const sched_param lowest{1};
        may = pthread_setschedparam(pthread_self(), SCHED_FIFO, &lowest) == 0;
    }).join();
    return may;
}
