#include "Scenes.h"
#include "ThreadFacts.h"

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/IThreadService.h>
#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <new>
#include <string>
#include <thread>

using Kel::System::Ve::IMutexService;
using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::ServiceFactory;
using Kel::System::Ve::Internal::Linux::IpcMutexService;

void ShowMutexes(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Mutexes: one thread at a time");
    const auto recursive = Own(factory.CreateMutex(true));
    recursive->Lock();
    narrator.Check(recursive->TryLock(), "the holder of a recursive mutex may lock it again");
    recursive->Unlock();
    recursive->Unlock();

    const auto mutex = Own(factory.CreateMutex(false));
    mutex->Lock();
    std::thread([&] {
        narrator.Check(!mutex->TryLock(), "TryLock by another thread says no at once: the mutex is held");
        const auto start = std::chrono::steady_clock::now();
        const int result = mutex->TimedLock(50);
        const std::chrono::duration<double, std::milli> waited = std::chrono::steady_clock::now() - start;
        narrator.Check(result == -1, "TimedLock(50) gives up after " + std::to_string(waited.count()) + " ms");
    }).join();
    std::thread waiting([&] {
        narrator.Check(mutex->TimedLock(60000) == 0, "TimedLock gets the mutex as soon as the holder unlocks it");
        mutex->Unlock();
    });
    mutex->Unlock();
    waiting.join();
    narrator.Check(factory.GetStatistics().GetNumOfObjectsCreated() == 2, "the factory counts both mutexes");
}

void ShowPriorityInheritance(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Priority inheritance: who holds a mutex is as urgent as who waits for it");
    const auto mutex = Own(factory.CreateMutex(false));
    const int before = ThreadFacts(gettid()).currentPriority;
    mutex->Lock();
    narrator.Say("A normal thread holds a mutex; the kernel runs it with priority " + std::to_string(before) + ".");

    const auto realTimeThread = Own(factory.CreateThread(
        [](void* argument) -> void* {
            static_cast<IMutexService*>(argument)->Lock();
            static_cast<IMutexService*>(argument)->Unlock();
            return nullptr;
        },
        mutex.get(), "tour-real-time", 50, 0, 0));
    try {
        realTimeThread->StartThread();
    } catch (const VeException& exception) {
        mutex->Unlock();
        narrator.Say(exception.GetMessage());
        narrator.SayHowToGetRealTime();
        return;
    }
    narrator.Say("A real-time thread of priority 50 now waits for it.");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    int boosted = ThreadFacts(gettid()).currentPriority;
    while (boosted == before && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
        boosted = ThreadFacts(gettid()).currentPriority;
    }
    mutex->Unlock();
    const int after = ThreadFacts(gettid()).currentPriority;
    realTimeThread->Join();
    narrator.Check(boosted == -51,
                   "while it waits, the holder runs with its priority (" + std::to_string(boosted) + ")");
    narrator.Check(after == before,
                   "after the unlock the holder is a normal thread again (" + std::to_string(after) + ")");
}

void ShowInterProcessMutex(Narrator& narrator) {
    narrator.Scene("The inter-process mutex: one process at a time");
    struct Shared {
        IpcMutexService mutex;
        unsigned int counter;
    };
    void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        narrator.Check(false, "memory to share could not be had");
        return;
    }
    auto* const shared = new (memory) Shared;
    shared->counter = 0;
    shared->mutex.Init(false);
    const unsigned int rounds = 100000;
    const auto count = [shared] {
        for (unsigned int i = 0; i < rounds; ++i) {
            shared->mutex.Lock();
            ++shared->counter;
            shared->mutex.Unlock();
        }
    };
    narrator.Say(
        "Two processes add 1 to a number in shared memory, each 100000 times, under a mutex that lies beside it.");
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) {
        narrator.Check(false, "a pipe between the processes could not be had");
        return;
    }
    shared->mutex.Lock();
    const pid_t child = fork();
    if (child == 0) {
        const char excluded = shared->mutex.TryLock() ? 'n' : 'y';
        const bool told = write(pipeEnds[1], &excluded, 1) == 1;
        count();
        _exit(told ? 0 : 1);
    }
    close(pipeEnds[1]);
    char excluded = 'n';
    narrator.Check(read(pipeEnds[0], &excluded, 1) == 1 && excluded == 'y',
                   "the child finds the mutex held by its parent");
    close(pipeEnds[0]);
    shared->mutex.Unlock();
    count();
    int status = -1;
    narrator.Check(child > 0 && waitpid(child, &status, 0) == child && status == 0, "parent and child have counted");
    narrator.Check(shared->counter == 2 * rounds, "nothing was lost: the number is " + std::to_string(shared->counter));
    shared->mutex.Destroy();
    munmap(memory, sizeof(Shared));
}
