#include "Scenes.h"

#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/ISemaphoreService.h>
#include <Kel/System/Ve/IThreadService.h>

#include <pthread.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using Kel::System::Ve::ISemaphoreService;
using Kel::System::Ve::IThreadService;
using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::ServiceFactory;

namespace {

std::string FirstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// What the kernel says of a thread.
struct ThreadFacts {
    explicit ThreadFacts(const std::string& folder) : name(FirstLine(folder + "/comm")) {
        const std::string stat = FirstLine(folder + "/stat");
        // After the name in brackets comes the third field.
        std::istringstream fields(stat.substr(stat.rfind(')') + 1));
        const std::vector<std::string> values{std::istream_iterator<std::string>(fields), {}};
        priority = std::stoi(values.at(40 - 3));
        policy = std::stoi(values.at(41 - 3));
        std::ifstream file(folder + "/status");
        for (std::string line; std::getline(file, line);) {
            if (line.rfind("Cpus_allowed_list:", 0) == 0) {
                processors = line.substr(line.find_first_of("0123456789"));
            }
        }
    }

    std::string name;
    int priority = -1;
    int policy = -1;
    std::string processors;
};

struct Shared {
    const std::unique_ptr<ISemaphoreService> started;
    const std::unique_ptr<ISemaphoreService> end;
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
    Shared shared{std::unique_ptr<ISemaphoreService>(factory.CreateSemaphore(0)),
                  std::unique_ptr<ISemaphoreService>(factory.CreateSemaphore(0))};
    const unsigned int processor0 = 1;
    const unsigned int stackSize = 256 * 1024;
    unsigned int priority = 40;
    std::unique_ptr<IThreadService> thread(
        factory.CreateThread(&TellAndWait, &shared, "tour-thread", priority, processor0, stackSize));
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
    const std::string folder = "/proc/self/task/" + std::to_string(shared.id);
    const ThreadFacts facts(folder);
    narrator.Say("The kernel says in " + folder + ":");
    narrator.Check(facts.name == "tour-thread", "its name is " + facts.name);
    narrator.Check(facts.priority == static_cast<int>(priority),
                   "its real-time priority is " + std::to_string(facts.priority));
    narrator.Check(
        facts.policy == (priority != 0 ? SCHED_FIFO : SCHED_OTHER),
        "its scheduling policy is " + std::to_string(facts.policy) + " (0 is normal, 1 is first in, first out)");
    narrator.Check(facts.processors == "0", "it may run on processor " + facts.processors);
    narrator.Check(shared.stackSize >= stackSize, "its stack has " + std::to_string(shared.stackSize) + " bytes");
    thread->SetName("renamed");
    narrator.Check(ThreadFacts(folder).name == "renamed", "set while it runs, its name changes at once");
    shared.end->Post();
    thread->Join();
    narrator.Check(!thread->Joinable(), "it has been joined");
}
