#include "Scenes.h"

#include <Kel/System/Ve/ICondVariableService.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/IRWLockService.h>
#include <Kel/System/Ve/ISemaphoreService.h>
#include <Kel/System/Ve/IThreadService.h>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <queue>
#include <string>

using Kel::System::Ve::ICondVariableService;
using Kel::System::Ve::IMutexService;
using Kel::System::Ve::IRWLockService;
using Kel::System::Ve::ISemaphoreService;
using Kel::System::Ve::IThreadService;
using Kel::System::Ve::Internal::ServiceFactory;

void ShowConditionVariable(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Condition variables: waiting until something is so");
    constexpr int last = 1000;
    struct Shared {
        const std::unique_ptr<IMutexService> mutex;
        const std::unique_ptr<ICondVariableService> changed;
        std::queue<int> queue;
        int sum = 0;
    } shared{std::unique_ptr<IMutexService>(factory.CreateMutex(false)),
             std::unique_ptr<ICondVariableService>(factory.CreateConditionVariable()),
             {}};

    const std::unique_ptr<IThreadService> consumer(factory.CreateThread(
        [](void* argument) -> void* {
            auto& work = *static_cast<Shared*>(argument);
            work.mutex->Lock();
            for (int item = 0; item != last;) {
                while (work.queue.empty()) {
                    work.changed->Wait(*work.mutex);
                }
                item = work.queue.front();
                work.queue.pop();
                work.sum += item;
            }
            work.mutex->Unlock();
            return nullptr;
        },
        &shared));
    narrator.Say("One thread puts the numbers 1 to 1000 into a queue, another waits for them and adds them up.");
    consumer->StartThread();
    for (int item = 1; item <= last; ++item) {
        shared.mutex->Lock();
        shared.queue.push(item);
        shared.changed->NotifyOne();
        shared.mutex->Unlock();
    }
    consumer->Join();
    narrator.Check(shared.sum == last * (last + 1) / 2,
                   "all of them have arrived: the sum is " + std::to_string(shared.sum));
    shared.mutex->Lock();
    const auto start = std::chrono::steady_clock::now();
    while (shared.changed->WaitFor(*shared.mutex, 20)) {
        // Nobody notifies, but any wait may end without reason.
    }
    shared.mutex->Unlock();
    narrator.Check(std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(20),
                   "a wait for more gives up after 20 ms");
}

void ShowReadWriteLock(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Read-write locks: many readers or one writer");
    struct Shared {
        const std::unique_ptr<IRWLockService> lock;
        const std::unique_ptr<ISemaphoreService> reading;
        const std::unique_ptr<ISemaphoreService> readOn;
    } shared{std::unique_ptr<IRWLockService>(factory.CreateRWLock()),
             std::unique_ptr<ISemaphoreService>(factory.CreateSemaphore(0)),
             std::unique_ptr<ISemaphoreService>(factory.CreateSemaphore(0))};
    const auto read = [](void* argument) -> void* {
        auto& common = *static_cast<Shared*>(argument);
        common.lock->AcquireReadLock();
        common.reading->Post();
        common.readOn->Wait(0);
        common.lock->ReleaseReadLock();
        return nullptr;
    };
    const std::unique_ptr<IThreadService> first(factory.CreateThread(read, &shared));
    const std::unique_ptr<IThreadService> second(factory.CreateThread(read, &shared));
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
    const std::unique_ptr<ISemaphoreService> question(factory.CreateSemaphore(name, 0));
    const std::unique_ptr<ISemaphoreService> answer(factory.CreateSemaphore(answerName, 0));
    const pid_t child = fork();
    if (child == 0) {
        // The child knows the names and nothing else.
        const std::unique_ptr<ISemaphoreService> opened(factory.CreateSemaphore(name));
        const std::unique_ptr<ISemaphoreService> openedAnswer(factory.CreateSemaphore(answerName));
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
