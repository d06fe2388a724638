#include "Factory.h"
#include "Families.h"
#include "TwoThreads.h"

#include <Kel/System/Ve/IThreadService.h>

#include <semaphore.h>

#include <memory>

using Kel::System::Ve::IThreadService;

namespace {

constexpr char name[] = "bench";

void* DoNothing(void* /*argument*/) { return nullptr; }

// What a start needs, by hand: all attributes, and a semaphore on which the new thread tells that it has its name.
struct Launch {
    sem_t named;
    void* (*function)(void*);
    void* argument;
};

void* NameItself(void* launchArgument) {
    auto& launch = *static_cast<Launch*>(launchArgument);
    void* (*const function)(void*) = launch.function;
    void* const argument = launch.argument;
    Expect(pthread_setname_np(pthread_self(), name) == 0);
    Expect(sem_post(&launch.named) == 0);
    return function(argument);
}

void StartAndJoinByHand(int processor) {
    Launch launch{{}, &DoNothing, nullptr};
    Expect(sem_init(&launch.named, 0, 0) == 0);
    pthread_attr_t attributes;
    sched_param parameters;
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(static_cast<unsigned int>(processor), &processors);
    Expect(pthread_attr_init(&attributes) == 0);
    Expect(pthread_attr_getschedparam(&attributes, &parameters) == 0);
    parameters.sched_priority = 0;
    Expect(pthread_attr_setschedpolicy(&attributes, SCHED_OTHER) == 0);
    Expect(pthread_attr_setschedparam(&attributes, &parameters) == 0);
    Expect(pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED) == 0);
    Expect(pthread_attr_setaffinity_np(&attributes, sizeof processors, &processors) == 0);
    pthread_t thread;
    Expect(pthread_create(&thread, &attributes, &NameItself, &launch) == 0);
    Expect(sem_wait(&launch.named) == 0);
    Expect(pthread_attr_destroy(&attributes) == 0);
    Expect(sem_destroy(&launch.named) == 0);
    Expect(pthread_join(thread, nullptr) == 0);
}

}  // namespace

void RegisterThreads() {
    for (const Processors& processors : OneAndTwoProcessors()) {
        const std::string work = "thread/start and join" + processors.name + "/";
        RegisterRun(work + "library", [processors](benchmark::State& state) {
            const Bound bound(processors.first);
            const std::unique_ptr<IThreadService> thread(Factory().CreateThread(
                &DoNothing, nullptr, name, 0, 1U << static_cast<unsigned int>(processors.second), 0));
            for (auto _ : state) {
                thread->StartThread();
                thread->Join();
            }
        });
        RegisterBound(work + "bare", processors.first, [processors] { StartAndJoinByHand(processors.second); });
    }
    RegisterPlainThread("std",
                        [] { std::thread([] { Expect(pthread_setname_np(pthread_self(), name) == 0); }).join(); });
}
