#include "Scenes.h"
#include "ThreadFacts.h"

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/ISemaphoreService.h>
#include <Kel/System/Ve/IThreadService.h>

#include <pthread.h>
#include <unistd.h>

#include <string>

using Kel::System::Ve::ISemaphoreService;
using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Adapters::Owned;
using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::ServiceFactory;

namespace {

struct Shared {
    const Owned<ISemaphoreService> started;
    const Owned<ISemaphoreService> end;
    pid_t id = 0;
    std::size_t stackSize = 0;
};

void* TellAndWait(void* argument) {
    auto& shared = *static_cast<Shared*>(argument);
    shared.id = gettid();
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &shared.stackSize);
    pthread_attr_destroy(&attributes);
    shared.started->Post();
    shared.end->Wait(0);
    return nullptr;
}

}  // namespace

void ShowThread(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Threads: with a name, a priority, a processor and a stack");
    Shared shared{Own(factory.CreateSemaphore(0)), Own(factory.CreateSemaphore(0))};
    const unsigned int processor0 = 1;
    const unsigned int stackSize = 256 * 1024;
    unsigned int priority = 40;
    auto thread = Own(factory.CreateThread(&TellAndWait, &shared, "tour-thread", priority, processor0, stackSize));
    try {
        thread->StartThread();
    } catch (const VeException& exception) {
        narrator.Say(exception.GetMessage());
        narrator.SayHowToGetRealTime();
        priority = 0;
        thread->SetPriority(priority);
        thread->StartThread();
    }
    shared.started->Wait(0);
    const ThreadFacts facts(shared.id);
    narrator.Say("The kernel says in " + facts.folder + ":");
    narrator.Check(facts.name == "tour-thread", "its name is " + facts.name);
    narrator.Check(facts.realTimePriority == static_cast<int>(priority),
                   "its real-time priority is " + std::to_string(facts.realTimePriority));
    narrator.Check(
        facts.policy == (priority != 0 ? SCHED_FIFO : SCHED_OTHER),
        "its scheduling policy is " + std::to_string(facts.policy) + " (0 is normal, 1 is first in, first out)");
    narrator.Check(facts.processors == "0", "it may run on processor " + facts.processors);
    narrator.Check(shared.stackSize >= stackSize, "its stack has " + std::to_string(shared.stackSize) + " bytes");
    thread->SetName("renamed");
    narrator.Check(ThreadFacts(shared.id).name == "renamed", "set while it runs, its name changes at once");
    shared.end->Post();
    thread->Join();
    narrator.Check(!thread->Joinable(), "it has been joined");
}
