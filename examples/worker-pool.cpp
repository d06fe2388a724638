// A pool of threads that take jobs from a queue, under a mutex and a condition variable.

#include <Kel/System/Ve/Adapters/Lockable.h>
#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Adapters/Runtime.h>
#include <Kel/System/Ve/Adapters/Wait.h>

#include <functional>
#include <iostream>
#include <mutex>
#include <numeric>
#include <queue>
#include <string>
#include <utility>
#include <vector>

using namespace Kel::System::Ve;
using Adapters::Lockable;
using Adapters::Own;
using Adapters::Owned;
using Internal::ServiceFactory;

namespace {

class Pool {
public:
    using Job = std::function<void()>;

    Pool(ServiceFactory& factory, unsigned int threadCount)
        : mutex(Own(factory.CreateMutex(false))), changed(Own(factory.CreateConditionVariable())) {
        for (unsigned int i = 0; i < threadCount; ++i) {
            threads.push_back(Own(factory.CreateThread(
                [](void* pool) -> void* {
                    static_cast<Pool*>(pool)->Work();
                    return nullptr;
                },
                this, "worker " + std::to_string(i), 0, 0, 0)));
        }
        try {
            for (const auto& thread : threads) {
                thread->StartThread();
            }
        } catch (...) {
            End();  // those that have started would wait for ever
            throw;
        }
    }

    /// Waits until all jobs are done.
    ~Pool() { End(); }

    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    /// A job lets no exception out: in a thread, that would end the process.
    void Add(Job job) {
        {
            const std::lock_guard guard(view);
            jobs.push(std::move(job));
        }
        changed->NotifyOne();
    }

private:
    void End() {
        {
            const std::lock_guard guard(view);
            ends = true;
        }
        changed->NotifyAll();
        threads.clear();  // deleting a thread waits for its end
    }

    void Work() {
        for (;;) {
            std::unique_lock lock(view);
            Adapters::Wait(*changed, lock, [this] { return ends || !jobs.empty(); });
            if (jobs.empty()) {
                return;
            }
            const Job job = std::move(jobs.front());
            jobs.pop();
            lock.unlock();
            job();
        }
    }

    const Owned<IMutexService> mutex;
    Lockable view{*mutex};
    const Owned<ICondVariableService> changed;
    std::queue<Job> jobs;
    bool ends = false;
    std::vector<Owned<IThreadService>> threads;
};

bool Run(ServiceFactory& factory) {
    std::vector<long> squares(1000);
    const auto signal = Own(factory.CreateSemaphore(0));
    bool haveMet = false;
    {
        Pool pool(factory, 4);
        // One job waits for another: two threads work at the same time.
        pool.Add([&] { haveMet = signal->Wait(60000); });
        pool.Add([&] { signal->Post(); });
        for (std::size_t i = 0; i < squares.size(); ++i) {
            pool.Add([&squares, i] { squares[i] = static_cast<long>(i * i); });
        }
    }
    const long sum = std::accumulate(squares.begin(), squares.end(), 0L);
    std::cout << "the squares of 0 to 999 add up to " << sum << "\n";
    return haveMet && sum == 332833500;
}

}  // namespace

int main() {
    const Adapters::Runtime runtime;
    return Run(*runtime) ? 0 : 1;
}
