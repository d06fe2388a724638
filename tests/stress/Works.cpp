#include "../support/Scenarios.h"
#include "Stress.h"

#include <Kel/System/Ve/Internal/FileServiceBase.h>
#include <Kel/System/Ve/Internal/Linux/IpcCondVarService.h>
#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>

#include <arpa/inet.h>
#include <pthread.h>
#include <sys/mman.h>

#include <chrono>
#include <exception>
#include <thread>

using namespace Kel::System::Ve;
using Internal::Linux::IpcCondVarService;
using Internal::Linux::IpcMutexService;

namespace {

// Of the many that the loopback interface has, so that connections which the system keeps for a while do not use up
// the ports of one.
unsigned int LoopbackAddress(Random& random) { return htonl(0x7F000001U + random.Below(0xFFFFF0U)); }

/// Carries out a scenario among others.
class AmongOthers final : public Steps {
public:
    explicit AmongOthers(unsigned int loopback) : Steps(NewName(), loopback) {}

    /// Returns what its steps have come to.
    std::string Run(const Scenario& scenario) {
        scenario.run(*this);
        return outcomes + TakeNames();
    }

private:
    void Do(const char* step, bool /*again*/, const std::function<void()>& operation,
            const std::function<std::string()>& outcome) override {
        outcomes.append("\n").append(step).append(": ");
        try {
            operation();
            outcomes += outcome();
        } catch (const std::exception&) {
            outcomes += CurrentException();
        }
    }

    std::string outcomes;
};

/// Objects of a kind that all threads share. They are replaced now and then; the last user of one deletes it.
template <typename Object>
class Slots {
public:
    std::shared_ptr<Object> Get(Random& random) {
        std::shared_ptr<Object>& slot = slots[random.Below(4)];
        std::shared_ptr<Object> object = std::atomic_load(&slot);
        if (!object || random.IsOneIn(20)) {
            object = std::make_shared<Object>(random);
            std::atomic_store(&slot, object);
        }
        return object;
    }

private:
    std::shared_ptr<Object> slots[4];
};

/// Requires that nobody else is inside while it lives.
class Inside {
public:
    explicit Inside(std::atomic<int>& newCount) : count(newCount) {
        Require(++count == 1, "one must be inside at most");
        // Others come, if they can.
        std::this_thread::yield();
    }
    ~Inside() { --count; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    std::atomic<int>& count;
};

// ---- What threads share: it uses itself, and has no more than one user inside where that is promised

bool WaitBriefly(ICondVariableService& condition, IMutexService& mutex, Random& random) {
    const auto limit = std::chrono::milliseconds(random.Below(3));
    return random.IsOneIn(2) ? condition.WaitFor(mutex, static_cast<unsigned long>(limit.count()))
                             : condition.WaitUntil(mutex, std::chrono::steady_clock::now() + limit);
}

bool WaitBriefly(IpcCondVarService& condition, IpcMutexService& mutex, Random& random) {
    return condition.WaitFor(mutex, random.Below(3));
}

class Store {
public:
    template <typename Mutex, typename Condition>
    void Use(Mutex& mutex, Condition& condition, Random& random) {
        const unsigned int way = random.Below(3);
        if (way == 0) {
            mutex.Lock();
        } else if (!(way == 1 ? mutex.TryLock() : mutex.TimedLock(random.Below(3)) == 0)) {
            return;
        }
        {
            const Inside alone(inside);
            const bool again = mutex.TryLock();
            Require(again == mutex.IsRecursive(), "the holder must lock again if that is meant to be");
            if (again) {
                mutex.Unlock();
            }
        }
        if (random.IsOneIn(2)) {
            ++items;
            random.IsOneIn(2) ? condition.NotifyOne() : condition.NotifyAll();
        } else if (mutex.IsRecursive()) {
            RequireOneOf(Thrown([&] { WaitBriefly(condition, mutex, random); }),
                         {"256 WaitFor: Recursive locks are not supported by condition variables.",
                          "256 WaitUntil: Recursive locks are not supported by condition variables."});
            // It has been unlocked.
            return;
        } else {
            while (items == 0 && WaitBriefly(condition, mutex, random)) {
            }
            items -= items > 0 ? 1 : 0;
        }
        mutex.Unlock();
    }

private:
    std::atomic<int> inside{0};
    unsigned int items = 0;
};

class SharedMutex {
public:
    explicit SharedMutex(Random& random) : mutex(Factory().CreateMutex(random.IsOneIn(4))) {}
    void Use(Random& random) { store.Use(*mutex, *condition, random); }

private:
    const std::unique_ptr<IMutexService> mutex;
    const std::unique_ptr<ICondVariableService> condition{Factory().CreateConditionVariable()};
    Store store;
};

class SharedIpcMutex {
public:
    explicit SharedIpcMutex(Random& /*random*/) { mutex.Init(false); }
    ~SharedIpcMutex() {
        condition.Destroy();
        mutex.Destroy();
    }
    void Use(Random& random) { store.Use(mutex, condition, random); }

private:
    IpcMutexService mutex;
    IpcCondVarService condition;
    Store store;
};

class SharedRWLock {
public:
    explicit SharedRWLock(Random& /*random*/) {}

    void Use(Random& random) {
        const unsigned int way = random.Below(3);
        if (random.IsOneIn(3)) {
            if (way == 0) {
                lock->AcquireWriteLock();
            } else if (!(way == 1 ? lock->TryAcquireWriteLock() : lock->TimedAcquireWriteLock(random.Below(3)))) {
                return;
            }
            {
                const Inside alone(writers);
                Require(readers == 0, "nobody must read while someone writes");
                RequireOneOf(Thrown([&] { lock->AcquireWriteLock(); }),
                             {"256 Could not acquire write-lock. Error Resource deadlock avoided (35)."});
            }
            lock->ReleaseWriteLock();
        } else {
            if (way == 0) {
                lock->AcquireReadLock();
            } else if (!(way == 1 ? lock->TryAcquireReadLock() : lock->TimedAcquireReadLock(random.Below(3)))) {
                return;
            }
            ++readers;
            std::this_thread::yield();
            Require(writers == 0, "nobody must write while someone reads");
            --readers;
            lock->ReleaseReadLock();
        }
    }

private:
    const std::unique_ptr<IRWLockService> lock{Factory().CreateRWLock()};
    std::atomic<int> readers{0};
    std::atomic<int> writers{0};
};

class SharedSemaphore {
public:
    explicit SharedSemaphore(Random& /*random*/) {}
    ~SharedSemaphore() { Require(semaphore->GetValue() == balance, "no count must be lost"); }

    void Use(Random& random) {
        if (random.IsOneIn(2)) {
            semaphore->Post();
            ++balance;
        } else if (random.IsOneIn(2) ? semaphore->TryWait() : semaphore->Wait(1 + random.Below(2))) {
            --balance;
        }
    }

private:
    const std::unique_ptr<ISemaphoreService> semaphore{Factory().CreateSemaphore(2)};
    std::atomic<int> balance{2};
};

class SharedTimer {
public:
    explicit SharedTimer(Random& random)
        : timer(Factory().CreateTimer(500 + random.Below(4000), "a timer", 0, &inside, &Tick, random.Below(2))) {}

    void Use(Random& random) {
        const std::string noThread = "linux error code: No such process";
        switch (random.Below(4)) {
            case 0:
                RequireOneOf(Thrown([&] { timer->Start(); }), {"", "256 Start: Timer was started yet!"});
                break;
            case 1:
                timer->Stop();
                break;
            case 2:
                RequireOneOf(Thrown([&] { timer->ChangeName("renamed"); }),
                             {"", "256 ChangeName: Could not set threadname of timer, " + noThread});
                break;
            default:
                RequireOneOf(Thrown([&] { timer->ChangePriority(0); }),
                             {"", "256 ChangePriority: Could not change priority, " + noThread});
                break;
        }
    }

private:
    static void Tick(void* inside) { const Inside alone(*static_cast<std::atomic<int>*>(inside)); }

    std::atomic<int> inside{0};
    // Goes first: until then the handler may be called.
    const std::unique_ptr<ITimerService> timer;
};

// A thread that uses services until it is cancelled, wherever it is.
class SharedThread {
public:
    explicit SharedThread(Random& /*random*/) { thread->StartThread(); }
    // Its deletion waits for it.
    ~SharedThread() { thread->Cancel(); }
    void Use(Random& random) { random.IsOneIn(4) ? thread->Cancel() : semaphore->Post(); }

private:
    static void* Run(void* argument) {
        for (;;) {
#ifdef __SANITIZE_THREAD__  // It loses track of a thread that is cancelled while it waits.
            static_cast<ISemaphoreService*>(argument)->TryWait();
            pthread_testcancel();
#else
            static_cast<ISemaphoreService*>(argument)->Wait(0);
#endif
        }
    }

    const std::unique_ptr<ISemaphoreService> semaphore{Factory().CreateSemaphore(0)};
    const std::unique_ptr<IThreadService> thread{Factory().CreateThread(&Run, semaphore.get())};
};

class SharedSocket {
public:
    explicit SharedSocket(Random& random) : address(LoopbackAddress(random)) {
        Require(socket->Bind(address, port) == 0, "a port must be bound");
    }

    void Use(Random& random) {
        char message[32] = "datagram";
        Error error{};
        if (random.IsOneIn(2)) {
            const int count = socket->SendTo(message, sizeof message, error, address, port);
            Require(count == sizeof message || error == Error::WouldBlock || error == Error::NotConn, "and be sent");
        } else {
            unsigned int from = 0;
            int fromPort = 0;
            const int count = socket->RecvFrom(message, sizeof message, error, from, fromPort);
            Require(count == sizeof message || count == 0 || error == Error::WouldBlock, "a datagram must come whole");
            Require(count <= 0 || (from == address && fromPort == port), "the sender must be told");
        }
        const int polled = socket->Poll(ISocketService::PollMode::Readable, random.Below(2), error);
        Require(polled == 0
                    ? error == Error::TimedOut
                    : polled == 1 && (error == Error::Success || error == Error::Shutdown || error == Error::ConnReset),
                "a socket must be polled");
        Require(socket->Select(ISocketService::SelectMode::Readable, random.Below(1000), error) >= 0, "and selected");
        if (random.IsOneIn(50)) {
            const int status = socket->Shutdown();
            Require(status == 0 || Error{status} == Error::NotConn, "and shut down");
        }
    }

private:
    using Error = ISocketService::SocketError;

    const std::unique_ptr<ISocketService> socket{
        Factory().CreateSocket(ISocketService::SocketType::Datagram, ISocketService::SocketDomain::Ipv4,
                               ISocketService::SocketBlockingMode::NonBlocking)};
    const unsigned int address;
    int port = 0;
};

class SharedQueue {
public:
    explicit SharedQueue(Random& random)
        : queue(Factory().CreateMessageQueue(NewName(), IMessageQueueService::OpenMode::CreateNew,
                                             IMessageQueueService::Access::ReadWrite, random.IsOneIn(2), 4, size)) {}
    ~SharedQueue() { queue->Unlink(); }

    void Use(Random& random) {
        // Nobody else may ever come who makes room, or sends: there is always a limit.
        const unsigned int limit = 1 + random.Below(2);
        char message[size] = "a message";
        if (random.IsOneIn(2)) {
            RequireOneOf(Thrown([&] { queue->Send(message, 1 + random.Below(size), random.Below(100), limit); }),
                         {"", "256 Could not send message. Error Connection timed out.",
                          "256 Could not send message. Error Resource temporarily unavailable."});
        } else {
            unsigned int priority = 0;
            const int length = queue->Receive(message, size, priority, limit);
            Require(length == 0 || (length > 0 && length <= static_cast<int>(size) && priority < 100),
                    "a message must come whole");
        }
    }

private:
    static constexpr unsigned int size = 64;

    const std::unique_ptr<IMessageQueueService> queue;
};

class SharedMemory {
public:
    explicit SharedMemory(Random& /*random*/) {}
    ~SharedMemory() {
        Require(Counter(*memory) == added, "what others write must be seen");
        // The object leaves it mapped.
        munmap(memory->GetAddress(), memory->GetSize());
        memory->Close();
        shm_unlink(memory->GetName().c_str());
    }

    void Use(Random& /*random*/) {
        const std::unique_ptr<ISharedMemoryService> opened(
            Factory().CreateSharedMemory(memory->GetName(), memory->GetSize(), ISharedMemoryService::mode::Open));
        ++added;
        ++Counter(*opened);
        munmap(opened->GetAddress(), opened->GetSize());
    }

private:
    static std::atomic<unsigned int>& Counter(ISharedMemoryService& of) {
        return *static_cast<std::atomic<unsigned int>*>(of.GetAddress());
    }

    const std::unique_ptr<ISharedMemoryService> memory{
        Factory().CreateSharedMemory(NewName(), sizeof(std::atomic<unsigned int>), ISharedMemoryService::mode::Create)};
    std::atomic<unsigned int> added{0};
};

class SharedFile {
public:
    explicit SharedFile(Random& /*random*/) {}
    ~SharedFile() {
        Require(file->Close() == 0 && Internal::FileServiceBase::Delete(path), "a file must be closed and deleted");
    }

    void Use(Random& random) {
        const auto* const bytes = reinterpret_cast<const unsigned char*>(record);
        Require(file->Write(bytes, 0, size) == size, "a record must be written");
        if (random.IsOneIn(8)) {
            Require(file->Flush() == 0 && file->Seek(0, IFileService::SeekOrigin::End) % static_cast<int>(size) == 0,
                    "records must be whole");
        }
    }

private:
    static constexpr char record[] = "a record that is written as a whole\n";
    static constexpr unsigned int size = sizeof record - 1;

    const std::string path = "/tmp" + NewName();
    const std::unique_ptr<IFileService> file{
        Factory().CreateFile(path, IFileService::FileMode::CreateNew, IFileService::FileAccess::Write, false)};
};

class SharedController {
public:
    explicit SharedController(Random& /*random*/) {}

    void Use(Random& /*random*/) {
        controller->IsSessionDaemonAlive();
        RequireOneOf(Thrown([&] { controller->ListSessions(); }),
                     {"", "256 Could not query session list from tracing service. Error ..."});
        RequireOneOf(Thrown([&] { controller->IsSessionEnabled(RunName()); }),
                     {"256 Cannot check enable mode of Session: Session " + RunName() + " does not exist"});
    }

private:
    const std::unique_ptr<ITraceControllerService> controller{Factory().CreateTraceController()};
};

template <typename Object>
Work Shared(const char* name) {
    const auto slots = std::make_shared<Slots<Object>>();
    return {std::string("shared ") + name, [slots](Random& random) { slots->Get(random)->Use(random); }, 10};
}

}  // namespace

std::vector<Work> MakeWorks() {
    std::vector<Work> works{Shared<SharedMutex>("mutex, condition variable"),
                            Shared<SharedIpcMutex>("inter-process mutex, condition"),
                            Shared<SharedRWLock>("read-write lock"),
                            Shared<SharedSemaphore>("semaphore"),
                            Shared<SharedThread>("thread"),
                            Shared<SharedTimer>("timer"),
                            Shared<SharedSocket>("socket"),
                            Shared<SharedQueue>("message queue"),
                            Shared<SharedMemory>("memory"),
                            Shared<SharedFile>("file"),
                            Shared<SharedController>("trace controller"),
                            {"shared with peers", &Peers::Use, 10}};
    for (const Scenario& scenario : Scenarios()) {
        if (!scenario.isOfWholeProcess) {
            // Each time it comes to what it comes to alone.
            const std::string expected = AmongOthers(htonl(INADDR_LOOPBACK)).Run(scenario);
            works.push_back(
                {scenario.name,
                 [&scenario, expected](Random& random) {
                     const std::string outcomes = AmongOthers(LoopbackAddress(random)).Run(scenario);
                     Require(outcomes == expected,
                             std::string("must come to").append(expected).append("\nand not to").append(outcomes));
                 },
                 2});
        }
    }
    return works;
}
