#pragma once

#include <pthread.h>
#include <sched.h>

#include <string>

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
