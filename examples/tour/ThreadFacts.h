#pragma once

#include <sys/types.h>

#include <string>

/// What the kernel says of a thread of this process.
struct ThreadFacts {
    explicit ThreadFacts(pid_t thread);

    std::string folder;
    std::string name;
    /// As set: 0 for a normal thread.
    int realTimePriority = -1;
    int policy = -1;
    /// As the thread runs with it at the moment: 20 for a normal thread, below 0 for a real-time one.
    int currentPriority = -1;
    std::string processors;
};
