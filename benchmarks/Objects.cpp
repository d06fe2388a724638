#include "Families.h"

#include <Kel/System/Ve/IMutexService.h>

#include <pthread.h>

#include <memory>
#include <vector>

using Kel::System::Ve::IMutexService;

void RegisterObjects(ServiceFactory& factory) {
    Register("mutex/create and delete/bare", [] {
        const auto mutex = std::make_unique<pthread_mutex_t>();
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_NORMAL);
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_PRIVATE);
        pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
        pthread_mutex_init(mutex.get(), &attributes);
        pthread_mutexattr_destroy(&attributes);
        benchmark::DoNotOptimize(mutex.get());
        pthread_mutex_destroy(mutex.get());
    });
    for (const int alive : {0, 1000, 100000}) {
        const std::string name =
            "mutex/create and delete/library" + (alive == 0 ? "" : " beside " + std::to_string(alive));
        benchmark::RegisterBenchmark(name.c_str(), [&factory, alive](benchmark::State& state) {
            std::vector<std::unique_ptr<IMutexService>> others(static_cast<std::size_t>(alive));
            for (auto& other : others) {
                other.reset(factory.CreateMutex(false));
            }
            for (auto _ : state) {
                delete factory.CreateMutex(false);
            }
        });
    }
    // By two threads at once: what it costs to wait for one another.
    Register("mutex/create and delete by two threads/library", [&factory] { delete factory.CreateMutex(false); })
        ->Threads(2)
        ->UseRealTime();
}
