#include "Bare.h"
#include "Factory.h"
#include "Families.h"
#include "Works.h"

#include <Kel/System/Ve/ICondVariableService.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/ISemaphoreService.h>

#include <fcntl.h>

#include <condition_variable>
#include <memory>
#include <mutex>

using Kel::System::Ve::ICondVariableService;
using Kel::System::Ve::IMutexService;
using Kel::System::Ve::ISemaphoreService;

namespace {

struct LibraryMonitor {
    void Lock() { mutex->Lock(); }
    void Unlock() { mutex->Unlock(); }
    void Notify() { condition->NotifyOne(); }
    void Wait() { condition->Wait(*mutex); }
    bool WaitForNothing() { return condition->WaitFor(*mutex, 0); }

    std::unique_ptr<IMutexService> mutex{Factory().CreateMutex(false)};
    std::unique_ptr<ICondVariableService> condition{Factory().CreateConditionVariable()};
};

using StdMonitor = StandardMonitor<std::mutex, std::condition_variable, std::unique_lock<std::mutex>, std::adopt_lock_t,
                                   std::chrono::seconds>;

struct LibrarySemaphore {
    void post() { semaphore->Post(); }
    void wait() { semaphore->Wait(0); }
    bool try_wait() { return semaphore->TryWait(); }
    bool wait_for(std::chrono::milliseconds duration) {
        return semaphore->Wait(static_cast<unsigned int>(duration.count()));
    }

    std::unique_ptr<ISemaphoreService> semaphore{Factory().CreateSemaphore(0)};
};

void RegisterNamedSemaphores() {
    // It is there, but open nowhere.
    const Kel::BasicString name = UniqueName("/kel-bench-open-");
    const auto whileItExists = [name](auto work) {
        return [name, work](benchmark::State& state) {
            sem_t* const created = sem_open(name.c_str(), O_CREAT | O_EXCL, 0666, 0U);
            Expect(created != SEM_FAILED && sem_close(created) == 0);
            for (auto _ : state) {
                work();
            }
            Expect(sem_unlink(name.c_str()) == 0);
        };
    };
    RegisterRun("semaphore/named open and close/library",
                whileItExists([&factory = Factory(), name] { delete factory.CreateSemaphore(name); }));
    RegisterRun("semaphore/named open and close/bare", whileItExists([name] {
                    sem_t* const opened = sem_open(name.c_str(), 0);
                    Expect(opened != SEM_FAILED && sem_close(opened) == 0);
                }));
}

}  // namespace

void RegisterWaiting() {
    RegisterConditionVariables<LibraryMonitor>("library");
    RegisterConditionVariables<BareMonitor>("bare");
    RegisterConditionVariables<StdMonitor>("std");
    RegisterSemaphores<LibrarySemaphore>("library");
    RegisterSemaphores<BareSemaphore>("bare");
    RegisterNamedSemaphores();
}
