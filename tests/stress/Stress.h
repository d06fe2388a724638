#pragma once

// What the parts of the stress program share.

#include "../support/Thrown.h"

#include <Kel/System/Ve/Internal/IServiceFactory.h>
#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>

#include <sys/types.h>

#include <array>
#include <atomic>
#include <functional>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <vector>

/// Numbers that follow from a seed.
class Random {
public:
    explicit Random(unsigned int seed) : engine(seed) {}

    /// Returns a number from 0 to `limit` - 1.
    unsigned int Below(unsigned int limit) { return std::uniform_int_distribution<unsigned int>(0, limit - 1)(engine); }

    bool IsOneIn(unsigned int count) { return Below(count) == 0; }

private:
    std::minstd_rand engine;
};

/// What a thread does, whatever others do at the same time.
struct Work {
    std::string name;
    std::function<void(Random& random)> run;
    /// How often it is chosen, among the others.
    unsigned int weight;
};

/// Call it before any thread is started. Objects that all threads share go with the works.
std::vector<Work> MakeWorks();

Kel::System::Ve::Internal::IServiceFactory& Factory();

/// What the names of all named objects and files of this run begin with.
const std::string& RunName();

/// Returns such a name that was not given before.
std::string NewName();

/// What does not hold is printed, and makes the program fail in the end.
void Require(bool holds, const std::string& what);

/// Requires that what was thrown, as `Thrown` tells it, is one of these; one that ends in "..." goes on in any way.
void RequireOneOf(const std::string& thrown, std::initializer_list<std::string> expected);

/// Processes that use the same objects as this one, and are killed and replaced at any moment, until the end.
class Peers {
public:
    /// Call it before any thread is started.
    explicit Peers(unsigned int seed);
    ~Peers();
    Peers(const Peers&) = delete;
    Peers& operator=(const Peers&) = delete;

    /// What this process and its peers do with the objects, as long as it is not killed. Nobody waits without limit:
    /// whoever holds or has taken something may be gone.
    static void Use(Random& random);

    static unsigned int CountKilled();

private:
    const std::unique_ptr<Kel::System::Ve::ISemaphoreService> semaphore;
    const std::unique_ptr<Kel::System::Ve::IMessageQueueService> queue;
    const std::unique_ptr<Kel::System::Ve::ISocketService> listener;
    // Starts and kills them. Their parent, so that they are made by a process without threads.
    pid_t keeper;
    int stop;
};
