#include "Scenes.h"

#include <Kel/System/Ve/Adapters/Lockable.h>
#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Adapters/SharedLockable.h>
#include <Kel/System/Ve/Adapters/Wait.h>
#include <Kel/System/Ve/ICondVariableService.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/IRWLockService.h>
#include <Kel/System/Ve/ISemaphoreService.h>
#include <Kel/System/Ve/IThreadService.h>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <queue>
#include <shared_mutex>
#include <string>

using Kel::System::Ve::ICondVariableService;
using Kel::System::Ve::IMutexService;
using Kel::System::Ve::IRWLockService;
using Kel::System::Ve::ISemaphoreService;
using Kel::System::Ve::Adapters::Lockable;
using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Adapters::Owned;
using Kel::System::Ve::Adapters::SharedLockable;
using Kel::System::Ve::Adapters::Wait;
using Kel::System::Ve::Adapters::WaitFor;
using Kel::System::Ve::Internal::ServiceFactory;

void ShowConditionVariable(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Condition variables: waiting until something is so");
    constexpr int last = 1000;
    struct Shared {
        const Owned<IMutexService> mutex;
        const Owned<ICondVariableService> changed;
        Lockable lockable{*mutex};
        std::queue<int> queue{};
        int sum = 0;
    } shared{Own(factory.CreateMutex(false)), Own(factory.CreateConditionVariable())};

    const auto consumer = Own(factory.CreateThread(
        [](void* argument) -> void* {
            auto& work = *static_cast<Shared*>(argument);
            std::unique_lock lock(work.lockable);
            for (int item = 0; item != last;) {
                Wait(*work.changed, lock, [&] { return !work.queue.empty(); });
                item = work.queue.front();
                work.queue.pop();
                work.sum += item;
            }
            return nullptr;
        },
        &shared));
    narrator.Say("One thread puts the numbers 1 to 1000 into a queue, another waits for them and adds them up.");
    consumer->StartThread();
    for (int item = 1; item <= last; ++item) {
        const std::lock_guard guard(shared.lockable);
        shared.queue.push(item);
        shared.changed->NotifyOne();
    }
    consumer->Join();
    narrator.Check(shared.sum == last * (last + 1) / 2,
                   "all of them have arrived: the sum is " + std::to_string(shared.sum));
    std::unique_lock lock(shared.lockable);
    const std::chrono::milliseconds timeout(20);
    const auto start = std::chrono::steady_clock::now();
    const bool more = WaitFor(*shared.changed, lock, timeout, [&] { return !shared.queue.empty(); });
    narrator.Check(!more && std::chrono::steady_clock::now() - start >= timeout,
                   "a wait for more gives up after 20 ms");
}

void ShowReadWriteLock(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Read-write locks: many readers or one writer");
    struct Shared {
        const Owned<IRWLockService> lock;
        const Owned<ISemaphoreService> reading;
        const Owned<ISemaphoreService> readOn;
    } shared{Own(factory.CreateRWLock()), Own(factory.CreateSemaphore(0)), Own(factory.CreateSemaphore(0))};
    const auto read = [](void* argument) -> void* {
        auto& common = *static_cast<Shared*>(argument);
        SharedLockable lockable(*common.lock);
        const std::shared_lock reading(lockable);
        common.reading->Post();
        common.readOn->Wait(0);
        return nullptr;
    };
    const auto first = Own(factory.CreateThread(read, &shared));
    const auto second = Own(factory.CreateThread(read, &shared));
    first->StartThread();
    second->StartThread();
    narrator.Check(shared.reading->Wait(60000) && shared.reading->Wait(60000),
                   "two readers hold the lock at the same time");
    narrator.Check(!shared.lock->TryAcquireWriteLock(), "a writer would have to wait for them");
    shared.readOn->Post();
    shared.readOn->Post();
    narrator.Check(shared.lock->TimedAcquireWriteLock(60000), "once they have gone the writer gets it");
    narrator.Check(!shared.lock->TryAcquireReadLock(), "and keeps readers out");
    shared.lock->ReleaseWriteLock();
}

void ShowNamedSemaphore(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Named semaphores: counting across processes");
    const Kel::BasicString name = "/kel-tour-" + std::to_string(getpid());
    const Kel::BasicString answerName = name + "-answer";
    const auto question = Own(factory.CreateSemaphore(name, 0));
    const auto answer = Own(factory.CreateSemaphore(answerName, 0));
    const pid_t child = fork();
    if (child == 0) {
        // The child knows the names and nothing else.
        const auto opened = Own(factory.CreateSemaphore(name));
        const auto openedAnswer = Own(factory.CreateSemaphore(answerName));
        for (int i = 0; i < 1000; ++i) {
            opened->Wait(0);
            openedAnswer->Post();
        }
        _exit(0);
    }
    int answers = 0;
    for (int i = 0; child > 0 && i < 1000; ++i) {
        question->Post();
        answers += answer->Wait(60000) ? 1 : 0;
    }
    narrator.Check(answers == 1000, "a child process has answered 1000 posts to " + name);
    int status = -1;
    narrator.Check(child > 0 && waitpid(child, &status, 0) == child && status == 0, "and has ended well");
    narrator.Say("The names go with the objects that made them.");
}
