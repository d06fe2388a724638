#include "Scenarios.h"

#include "OwnCounts.h"
#include "PluginPath.h"
#include "SharedObject.h"

#include <Kel/Core/AppDomain.h>
#include <Kel/Core/RuntimeTypeInfo.h>
#include <Kel/System/Ve/Internal/Linux/ConditionVariableService.h>
#include <Kel/System/Ve/Internal/Linux/FileService.h>
#include <Kel/System/Ve/Internal/Linux/IpcCondVarService.h>
#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>
#include <Kel/System/Ve/Internal/Linux/MutexService.h>
#include <Kel/System/Ve/Internal/Linux/RWLockService.h>
#include <Kel/System/Ve/Internal/Linux/SemaphoreService.h>
#include <Kel/System/Ve/Internal/Linux/SharedLibraryService.h>
#include <Kel/System/Ve/Internal/Linux/ThreadService.h>
#include <Kel/System/Ve/Internal/Linux/TimeoutConversion.h>
#include <Kel/System/Ve/Internal/Linux/TimerService.h>
#include <Kel/System/Ve/Internal/MutexGuard.h>

#include <fcntl.h>
#include <mqueue.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <thread>
#include <typeinfo>

using namespace Kel::System::Ve;
using namespace Kel::System::Ve::Internal;
using namespace Kel::System::Ve::Internal::Linux;
using Kel::BasicString;

namespace {

template <typename Condition>
void WaitUntil(Condition condition) {
    while (!condition()) {
        sched_yield();
    }
}

// Hands `made` to its owner, and to the step, which tells what it is.
template <typename Service>
const IServiceObject* Made(std::unique_ptr<Service>& owner, Service* made) {
    owner.reset(made);
    return made;
}

// The end of a service that can be destroyed before it is deleted.
template <typename Service, typename Owner, typename Create>
void End(Steps& step, Owner& owner, Create create) {
    step("deletion", [&] { owner.reset(); });
    owner.reset(create());
    step("Destroy", [&] { dynamic_cast<Service&>(*owner).Destroy(); });
    step("deletion of the destroyed one", [&] { owner.reset(); });
}

// Runs what a scenario does beside its steps in another thread.
class Helper {
public:
    template <typename Function>
    Helper(Steps& step, Function function)
        : thread([&step, function] {
              step.BeginHelper();
              function();
          }) {}
    ~Helper() { thread.join(); }
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

private:
    std::thread thread;
};

void Singletons(Steps& step) {
    auto& current = Kel::Singleton<Kel::AppDomain>::pInstance;
    Kel::AppDomain* const previous = current;
    ServiceFactory::DisposeServiceFactory();
    current = nullptr;
    {
        std::unique_ptr<Kel::AppDomain> domain;
        step("AppDomain", [&] { domain = std::make_unique<Kel::AppDomain>(); });
        current = domain.get();
        step("CreateServiceFactory", [] { ServiceFactory::CreateServiceFactory(); });
        step("GetInstance", [] { ServiceFactory::GetInstance(); });
        step("DisposeServiceFactory", [] { ServiceFactory::DisposeServiceFactory(); });
        step("deletion of the AppDomain", [&] { domain.reset(); });
    }
    current = previous;
    ServiceFactory::CreateServiceFactory();
    step.factory = ServiceFactory::GetInstance();
}

void Settings(Steps& step) {
    const std::unique_ptr<ISignalHandlerService> handler(step.factory->CreateSignalHandler());
    step("Setup of signal handlers", [&] { handler->Setup(nullptr, nullptr); });
    const int descriptor = NextDescriptor();
    step("SetLatencyTarget", [] { TimerService::SetLatencyTarget(); });
    close(descriptor);
    step("SetupCurrentProcess", [] { ProcessServiceBase::SetupCurrentProcess(1); });
}

template <typename Mutex>
void UseMutex(Steps& step, Mutex& mutex) {
    step("Lock", [&] { mutex.Lock(); });
    step.Once("Unlock", [&] { mutex.Unlock(); });
    step("TryLock", [&] { return mutex.TryLock(); });
    mutex.Unlock();
    step("TimedLock", [&] { return mutex.TimedLock(60000); });
    step("TryLock of a held one", [&] { return mutex.TryLock(); });
    step("TimedLock of a held one", [&] { return mutex.TimedLock(1); });
    mutex.Unlock();
    step("IsRecursive", [&] { return mutex.IsRecursive(); });
}

void Mutexes(Steps& step) {
    const auto create = [&] { return step.factory->CreateMutex(false); };
    std::unique_ptr<IMutexService> mutex;
    step("CreateMutex", [&] { return Made(mutex, create()); });
    UseMutex(step, *mutex);
    End<MutexService>(step, mutex, create);
}

void IpcMutexes(Steps& step) {
    const SharedObject<IpcMutexService> mutex;
    step("Init", [&] { mutex->Init(false); });
    UseMutex(step, *mutex.operator->());
    step("Destroy", [&] { mutex->Destroy(); });
}

template <typename Mutex, typename Condition>
void UseCondition(Steps& step, Mutex& mutex, Condition& condition) {
    std::atomic<bool> isOver{false};
    {
        // Notifies until somebody has been woken.
        const Helper helper(step, [&] {
            while (!isOver) {
                const MutexGuard guard(mutex);
                condition.NotifyAll();
            }
        });
        const MutexGuard guard(mutex);
        step("Wait", [&] { condition.Wait(mutex); });
        isOver = true;
    }
    step("NotifyOne", [&] { condition.NotifyOne(); });
    step("NotifyAll", [&] { condition.NotifyAll(); });
    const MutexGuard guard(mutex);
    step("WaitFor", [&] { return condition.WaitFor(mutex, 1); });
}

void ConditionVariables(Steps& step) {
    const auto create = [&] { return step.factory->CreateConditionVariable(); };
    const std::unique_ptr<IMutexService> mutex(step.factory->CreateMutex(false));
    std::unique_ptr<ICondVariableService> condition;
    step("CreateConditionVariable", [&] { return Made(condition, create()); });
    UseCondition(step, *mutex, *condition);
    {
        const MutexGuard guard(*mutex);
        const auto now = std::chrono::steady_clock::now();
        step("WaitUntil", [&] { return condition->WaitUntil(*mutex, now); });
    }
    End<ConditionVariableService>(step, condition, create);
}

void IpcConditionVariables(Steps& step) {
    const SharedObject<IpcMutexService> mutex;
    mutex->Init(false);
    alignas(IpcCondVarService) std::byte place[sizeof(IpcCondVarService)];
    step("IpcCondVarService", [&] { new (place) IpcCondVarService; });
    auto& condition = *reinterpret_cast<IpcCondVarService*>(place);
    UseCondition(step, *mutex.operator->(), condition);
    step("Destroy", [&] { condition.Destroy(); });
    mutex->Destroy();
}

void RWLocks(Steps& step) {
    const auto create = [&] { return step.factory->CreateRWLock(); };
    std::unique_ptr<IRWLockService> lock;
    step("CreateRWLock", [&] { return Made(lock, create()); });
    step("AcquireReadLock", [&] { lock->AcquireReadLock(); });
    step.Once("ReleaseReadLock", [&] { lock->ReleaseReadLock(); });
    step("AcquireWriteLock", [&] { lock->AcquireWriteLock(); });
    step.Once("ReleaseWriteLock", [&] { lock->ReleaseWriteLock(); });
    step("TryAcquireReadLock", [&] { return lock->TryAcquireReadLock(); });
    lock->ReleaseReadLock();
    step("TryAcquireWriteLock", [&] { return lock->TryAcquireWriteLock(); });
    lock->ReleaseWriteLock();
    step("TimedAcquireReadLock", [&] { return lock->TimedAcquireReadLock(60000); });
    step("TryAcquireWriteLock of a held one", [&] { return lock->TryAcquireWriteLock(); });
    step("TimedAcquireWriteLock of a held one", [&] { return lock->TimedAcquireWriteLock(1); });
    lock->ReleaseReadLock();
    step("TimedAcquireWriteLock", [&] { return lock->TimedAcquireWriteLock(60000); });
    lock->ReleaseWriteLock();
    {
        std::atomic<bool> isHeld{false};
        std::atomic<bool> isOver{false};
        const Helper helper(step, [&] {
            lock->AcquireWriteLock();
            isHeld = true;
            WaitUntil([&] { return isOver.load(); });
            lock->ReleaseWriteLock();
        });
        WaitUntil([&] { return isHeld.load(); });
        step("TimedAcquireReadLock of a held one", [&] { return lock->TimedAcquireReadLock(1); });
        isOver = true;
    }
    End<RWLockService>(step, lock, create);
}

void Semaphores(Steps& step) {
    const auto create = [&] { return step.factory->CreateSemaphore(1); };
    std::unique_ptr<ISemaphoreService> semaphore;
    step("CreateSemaphore", [&] { return Made(semaphore, create()); });
    step("Wait", [&] { return semaphore->Wait(0); });
    step("TryWait for none", [&] { return semaphore->TryWait(); });
    step("Post", [&] { semaphore->Post(); });
    step("TryWait", [&] { return semaphore->TryWait(); });
    semaphore->Post();
    step("Wait for a time", [&] { return semaphore->Wait(60000); });
    step("Wait for a time that runs out", [&] { return semaphore->Wait(1); });
    step("GetValue", [&] { return semaphore->GetValue(); });
    End<SemaphoreService>(step, semaphore, create);
}

void NamedSemaphores(Steps& step) {
    std::unique_ptr<ISemaphoreService> creator;
    std::unique_ptr<ISemaphoreService> opener;
    step("CreateSemaphore", [&] { return Made(creator, step.factory->CreateSemaphore(step.name, 1)); });
    step("CreateSemaphore, opening", [&] { return Made(opener, step.factory->CreateSemaphore(step.name)); });
    step("Close", [&] { dynamic_cast<SemaphoreService&>(*opener).Close(); });
    opener.reset();
    opener.reset(step.factory->CreateSemaphore(step.name));
    step("deletion of the opened one", [&] { opener.reset(); });
    step("Unlink", [&] { dynamic_cast<SemaphoreService&>(*creator).Unlink(); });
    creator.reset(step.factory->CreateSemaphore(step.name, 1));
    step("deletion", [&] { creator.reset(); });
}

void Threads(Steps& step) {
    // A start that fails with its thread there is done again, and leaves that thread on its own: it may outlive this.
    thread_local std::atomic<bool> outliving;
    std::atomic<bool>& mayEnd = outliving;
    mayEnd = false;
    const auto run = [](void* argument) -> void* {
        WaitUntil([=] { return static_cast<std::atomic<bool>*>(argument)->load(); });
        return nullptr;
    };
    const auto runUntilCancelled = [](void* /*argument*/) -> void* {
        for (;;) {
            pthread_testcancel();
        }
    };
    const BasicString longName = "a name of more than 15";
    IServiceFactory& factory = *step.factory;
    std::unique_ptr<IThreadService> thread;
    step("CreateThread, function only", [&] { return Made(thread, factory.CreateThread(run)); });
    step("CreateThread, without settings", [&] { return Made(thread, factory.CreateThread(run, &mayEnd)); });
    step("CreateThread", [&] { return Made(thread, factory.CreateThread(run, &mayEnd, longName, 0, 1, 1U << 20U)); });
    step("StartThread", [&] { thread->StartThread(); });
    step("SetName", [&] { thread->SetName(longName); });
    step("SetPriority", [&] { thread->SetPriority(0); });
    step("SetCpuAffinity", [&] { thread->SetCpuAffinity(1); });
    step("Joinable", [&] { return thread->Joinable(); });
    {
        const Helper helper(step, [&] {
            step.WaitForCall("pthread_cond_wait");
            mayEnd = true;
        });
        step("Join", [&] { thread->Join(); });
    }
    thread->StartThread();
    WaitUntil([&] { return !thread->Joinable(); });
    step("deletion", [&] { thread.reset(); });
    thread.reset(factory.CreateThread(runUntilCancelled, nullptr));
    thread->StartThread();
    step("Cancel", [&] { thread->Cancel(); });
    thread->Join();
    step("SetAsynchronousCancelability", [] { ThreadServiceBase::SetAsynchronousCancelability(false); });
    step("Sleep", [] { ThreadServiceBase::Sleep(1); });
}

void Timers(Steps& step) {
    // Stop, as the library joins a thread, waits for its end where that has not come by itself.
    step.LeaveOut("pthread_cond_wait");
    constexpr unsigned int oneHour = 3600000000;
    const auto handler = [](void* /*argument*/) {};
    std::unique_ptr<ITimerService> timer;
    step("CreateTimer",
         [&] { return Made(timer, step.factory->CreateTimer(oneHour, "a timer", 0, nullptr, handler, 1)); });
    step("Start", [&] { timer->Start(); });
    step.WaitForCall("pthread_cond_timedwait");
    step("SetName", [&] { timer->SetName("another name"); });
    step("SetPriority", [&] { timer->SetPriority(0); });
    step("SetCPUAffinity", [&] { timer->SetCPUAffinity(1); });
    step("Stop", [&] { timer->Stop(); });
    timer->Start();
    step("deletion", [&] { timer.reset(); });
    timespec deadline;
    step("Convert", [&] { TimeoutConversion::Convert(1, deadline, TimeoutConversion::Monotonic); });
}

using Type = ISocketService::SocketType;
using Domain = ISocketService::SocketDomain;
using Blocking = ISocketService::SocketBlockingMode;
using Error = ISocketService::SocketError;
using PollMode = ISocketService::PollMode;

// Puts the error that is told beside a result behind it.
auto With(const Error& error) {
    return
        [&error](int result) { return std::to_string(result) + ", error " + std::to_string(static_cast<int>(error)); };
}

void StreamSockets(Steps& step) {
    unsigned int peerAddress = 0;
    int port = 0;
    Error error{};
    const auto told = With(error);
    std::unique_ptr<ISocketService> listener;
    std::unique_ptr<ISocketService> client;
    std::unique_ptr<ISocketService> server;
    const auto make = [&] { return step.factory->CreateSocket(Type::Stream, Domain::Ipv4, Blocking::Blocking); };
    step("CreateSocket, non-blocking",
         [&] { return Made(client, step.factory->CreateSocket(Type::Stream, Domain::Ipv4, Blocking::NonBlocking)); });
    step("CreateSocket", [&] {
        listener.reset(make());
        return listener->GetSocketDescriptor() != -1;
    });
    const auto listen = [&] {
        listener.reset(make());
        port = 0;
        listener->Bind(step.address, port);
        listener->Listen(1);
    };
    listener.reset(make());
    step("Bind", [&] { return listener->Bind(step.address, port); });
    step("Listen", [&] { return listener->Listen(1); });
    listen();
    step("SetOptionBlocking", [&] { return client->SetOptionBlocking(true); });
    step("Connect", [&] { return client->Connect(step.address, port); });
    bool isRepeated = false;
    step("Accept", [&] {
        if (isRepeated) {
            // The connection is gone, perhaps.
            listen();
            client.reset(make());
            client->Connect(step.address, port);
        }
        isRepeated = true;
        int peerPort = 0;
        server.reset(listener->Accept(peerAddress, peerPort, error));
        return told(server ? 1 : 0);
    });
    char byte = 'x';
    step("Send", [&] { return told(client->Send(&byte, 1, error)); });
    step("Poll", [&] { return told(server->Poll(PollMode::Readable, 60000, error)); });
    step("Select", [&] { return told(server->Select(ISocketService::SelectMode::Readable, 60000000, error)); });
    step("Recv", [&] { return told(server->Recv(&byte, 1, error)); });
    constexpr auto keepAlive = ISocketService::SocketOptionName::KeepAlive;
    int value = 1;
    unsigned int length = sizeof value;
    step("SetSockOpt", [&] { return client->SetSockOpt(keepAlive, &value, length); });
    step("GetSockOpt", [&] { return client->GetSockOpt(keepAlive, &value, &length); });
    step("SetOptionKeepAliveIdleTime", [&] { return client->SetOptionKeepAliveIdleTime(1); });
    step("GetOptionKeepAliveIdleTime", [&] {
        value = 7;
        const int status = client->GetOptionKeepAliveIdleTime(value);
        return std::to_string(status) + ", value " + std::to_string(value);
    });
    step("Shutdown", [&] { return client->Shutdown(); });
    step("Close", [&] { return client->Close(); });
    step("deletion", [&] { server.reset(); });
}

void DatagramSockets(Steps& step) {
    unsigned int peerAddress = 0;
    int port = 0;
    int from = 0;
    Error error{};
    const auto told = With(error);
    char byte = 'x';
    const std::unique_ptr<ISocketService> socket(
        step.factory->CreateSocket(Type::Datagram, Domain::Ipv4, Blocking::Blocking));
    socket->Bind(step.address, port);
    step("SendTo", [&] { return told(socket->SendTo(&byte, 1, error, step.address, port)); });
    step("RecvFrom", [&] { return told(socket->RecvFrom(&byte, 1, error, peerAddress, from)); });
}

void LocalSockets(Steps& step) {
    const auto make = [&] { return step.factory->CreateSocket(Type::Stream, Domain::Local, Blocking::Blocking); };
    Error error{};
    const auto told = With(error);
    std::unique_ptr<ISocketService> listener(make());
    step("Bind", [&] { return listener->Bind(step.name); });
    listener->Listen(2);
    std::unique_ptr<ISocketService> client(make());
    step("Connect", [&] { return client->Connect(step.name); });
    std::unique_ptr<ISocketService> server;
    bool isRepeated = false;
    step("Accept", [&] {
        if (isRepeated) {
            // The connection is gone, perhaps.
            client.reset(make());
            client->Connect(step.name);
        }
        isRepeated = true;
        BasicString peer;
        server.reset(listener->Accept(peer, error));
        return told(server ? 1 : 0);
    });
    step("deletion of the listener", [&] { listener.reset(); });

    // Bound to a file by other means.
    const auto bindToFile = [&] {
        listener.reset(make());
        sockaddr_un bound{};
        bound.sun_family = AF_UNIX;
        step.Path("socket").copy(bound.sun_path, sizeof bound.sun_path - 1);
        static_cast<void>(
            bind(listener->GetSocketDescriptor(), reinterpret_cast<const sockaddr*>(&bound), sizeof bound));
    };
    bindToFile();
    step("Close", [&] { return listener->Close(); });
    bindToFile();
    listener->Listen(1);
    std::unique_ptr<ISocketService> other;
    step("CreateNonAbstractIpcSocket", [&] { return Made(other, step.factory->CreateNonAbstractIpcSocket()); });
    other.reset();
    step("deletion", [&] { listener.reset(); });
    int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    step("CreateSocket of a handle", [&] { return Made(other, step.factory->CreateSocket(&descriptor)); });
}

void MessageQueues(Steps& step) {
    using OpenMode = IMessageQueueService::OpenMode;
    using Access = IMessageQueueService::Access;
    IServiceFactory& factory = *step.factory;
    char buffer[16];
    unsigned int priority = 0;
    std::unique_ptr<IMessageQueueService> queue;
    std::unique_ptr<IMessageQueueService> other;
    step("CreateMessageQueue, with attributes", [&] {
        return Made(queue, factory.CreateMessageQueue(step.name, OpenMode::CreateNew, Access::ReadWrite, false, 2,
                                                      sizeof buffer));
    });
    step("CreateMessageQueue, opening", [&] { return Made(other, factory.CreateMessageQueue(step.name, true)); });
    step("CreateMessageQueue", [&] {
        return Made(other, factory.CreateMessageQueue(step.name, OpenMode::OpenOrCreate, Access::WriteOnly, true));
    });
    step("deletion", [&] { other.reset(); });
    step("Send", [&] { return queue->Send("one", 3, 0, 0); });
    step("Send for a time", [&] { return queue->Send("three", 5, 0, 60000); });
    step("GetMessageCount", [&] { return queue->GetMessageCount(); });
    step("Receive", [&] { return queue->Receive(buffer, sizeof buffer, priority, 0); });
    step("Receive for a time", [&] { return queue->Receive(buffer, sizeof buffer, priority, 60000); });
    step("Close", [&] { queue->Close(); });
    step("Unlink", [&] { queue->Unlink(); });
}

void CloseDescriptorOf(const std::string& path) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry, gone) == path) {
            close(std::stoi(entry.path().filename()));
        }
    }
}

void SharedMemory(Steps& step) {
    using Mode = ISharedMemoryService::mode;
    constexpr unsigned int size = 64;
    std::unique_ptr<ISharedMemoryService> memory;
    const auto create = [&](Mode mode) {
        return Made(memory, step.factory->CreateSharedMemory(step.name, size, mode));
    };
    const auto unmap = [&] { munmap(memory->GetAddress(), size); };
    step("CreateSharedMemory", [&] { return create(Mode::Create); });
    unmap();
    step("Close", [&] { memory->Close(); });
    step("CreateSharedMemory, opening", [&] { return create(Mode::Open); });
    unmap();
    step("deletion", [&] { memory.reset(); });
    create(Mode::Open);
    unmap();
    step("Unlink", [&] { memory->Unlink(); });
    shm_unlink(step.name.c_str());
    // It stays open, as it is meant to be.
    CloseDescriptorOf("/dev/shm" + step.name + " (deleted)");
}

void Files(Steps& step) {
    using Mode = IFileService::FileMode;
    const BasicString path = step.Path("file");
    unsigned char byte = 'x';
    std::unique_ptr<IFileService> file;
    const auto create = [&](Mode mode, bool sync) {
        return [=, &step, &file] {
            file.reset();
            return Made(file, step.factory->CreateFile(path, mode, IFileService::FileAccess::ReadWrite, sync));
        };
    };
    const auto remove = [&] {
        file.reset();
        std::filesystem::remove(std::string(path));
    };
    step("CreateFile, Create", create(Mode::Create, true));
    step("Write", [&] { return file->Write(&byte, 0, 1); });
    step("Flush", [&] { return file->Flush(); });
    step("Seek", [&] { return file->Seek(0, IFileService::SeekOrigin::Begin); });
    step("Read", [&] { return file->Read(&byte, 0, 1); });
    step("Tell", [&] { return dynamic_cast<FileService&>(*file).Tell(); });
    step("Close", [&] { return file->Close(); });
    step("CreateFile, Open", create(Mode::Open, false));
    step("Close without synchronising", [&] { return file->Close(); });
    step("CreateFile, Truncate", create(Mode::Truncate, true));
    step("CreateFile, Append", create(Mode::Append, true));
    step("deletion", [&] { file.reset(); });
    remove();
    step("CreateFile, OpenOrCreate", create(Mode::OpenOrCreate, false));
    remove();
    step("CreateFile, CreateNew", create(Mode::CreateNew, false));
    file.reset();
    step("Exists", [&] { return FileServiceBase::Exists(path); });
    step("Sync", [&] { return FileServiceBase::Sync(path); });
    step("Delete", [&] { return FileServiceBase::Delete(path); });
    remove();
}

void NetworkInterfaces(Steps& step) {
    std::unique_ptr<INetworkInterfaceInfo> info;
    step("CreateNetworkInterfaceInfo", [&] {
        BasicString error;
        info.reset(step.factory->CreateNetworkInterfaceInfo("lo", error));
        return info ? std::string(info->GetIpAddress()) : "null, error \"" + error + "\"";
    });
    step("deletion", [&] { info.reset(); });
}

// All of them are this thread's children: other threads have their own.
void WaitForChildren() {
    while (waitpid(-1, nullptr, __WNOTHREAD) > 0) {
    }
}

// Waits for the end of a child, if there is one, and leaves it to be waited for.
void WaitForAChild() {
    siginfo_t information{};
    waitid(P_ALL, 0, &information, WEXITED | WNOWAIT | __WNOTHREAD);
}

void Processes(Steps& step) {
    // A child that reads from it ends at the end of a line.
    const BasicString pipe = step.Path("file");
    mkfifo(pipe.c_str(), 0600);
    const int end = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
    std::unique_ptr<IProcessService> process;
    step("CreateProcess", [&] { return Made(process, step.factory->CreateProcess()); });
    step("Start", [&] { process->Start("/", "/bin/true", ""); });
    WaitForAChild();
    // A child that has ended well is said to have done so by the second one.
    step("HasExited", [&] { return process->HasExited(); });
    step("HasExited", [&] { return process->HasExited(); });
    step("StartDaemon", [&] { process->StartDaemon("/", "/bin/true", ""); });
    WaitForAChild();
    process->Kill();
    WaitForChildren();
    step("StartBlocking", [&] {
        int exitCode = 99;
        process->StartBlocking("/", "/bin/true", "", exitCode);
        return exitCode;
    });
    WaitForChildren();
    process->Start("/", "/bin/grep", "-q x " + pipe);
    step("Kill", [&] { process->Kill(); });
    static_cast<void>(write(end, "x\n", 2));
    WaitForChildren();
    close(end);
    unlink(pipe.c_str());
    step("deletion", [&] { process.reset(); });
    // How long the path is decides whether the text has to be allocated.
    step.LeaveOut("operator new");
    step("GetCurrentName", [] { return ProcessServiceBase::GetCurrentName().empty(); });
}

void SharedLibraries(Steps& step) {
    // How many there are depends on the number of segments.
    step.LeaveOut("pthread_mutex_unlock");
    const BasicString plugin = PluginPath();
    std::unique_ptr<ISharedLibraryService> library;
    step("CreateSharedLibrary", [&] { return Made(library, step.factory->CreateSharedLibrary()); });
    step("Load", [&] { library->Load(plugin); });
    step("GetFunctionAddress", [&] { return library->GetFunctionAddress("PluginAnswer") != nullptr; });
    step("Unload", [&] { library->Unload(); });
    library->Load(plugin);
    step("deletion", [&] { library.reset(); });
    step("GetPathOfVeLibrary", [] { return SharedLibraryServiceBase::GetPathOfVeLibrary().empty(); });
}

void SignalHandlers(Steps& step) {
    std::unique_ptr<ISignalHandlerService> handler;
    step("CreateSignalHandler", [&] { return Made(handler, step.factory->CreateSignalHandler()); });
    step("deletion", [&] { handler.reset(); });
}

void TraceControllers(Steps& step) {
    const BasicString normal = "normal";
    const BasicString ring = "ring";
    // Its null is the end of a list.
    step.LeaveOut("lttng_snapshot_output_list_get_next");
    std::unique_ptr<ITraceControllerService> controller;
    step("CreateTraceController", [&] { return Made(controller, step.factory->CreateTraceController()); });
    step("IsSessionDaemonAlive", [&] { return controller->IsSessionDaemonAlive(); });
    step("LoadSessionConfiguration", [&] { return controller->LoadSessionConfiguration(normal, "/saved"); });
    step("ListSessions", [&] { return controller->ListSessions().size(); });
    step("StartSession", [&] { return controller->StartSession(normal); });
    step("StopSession", [&] { return controller->StopSession(normal); });
    step("DestroySession", [&] { return controller->DestroySession(normal); });
    step("IsSessionEnabled", [&] { return controller->IsSessionEnabled(normal); });
    step("IsSessionInSnapshotMode", [&] { return controller->IsSessionInSnapshotMode(ring); });
    step("RecordSessionSnapshot", [&] { return controller->RecordSessionSnapshot(ring); });
    step("ListSessionOutputs", [&] { return controller->ListSessionOutputs(ring).size(); });
    step("deletion", [&] { controller.reset(); });
}

// Of objects that tests have made, and of code that they have loaded: sanitizers map libraries to read names in them.
long CountMappings() {
    std::ifstream maps("/proc/self/maps");
    long count = 0;
    for (std::string line; std::getline(maps, line);) {
        const bool isCode = line.find("libve-tests-") != std::string::npos && line.find(" r-xp ") != std::string::npos;
        count += isCode || line.find("/dev/shm/") != std::string::npos ? 1 : 0;
    }
    return count;
}

}  // namespace

std::string Steps::TakeNames() const {
    std::string names;
    names += sem_unlink(name.c_str()) == 0 ? ", the name of the semaphore" : "";
    names += mq_unlink(name.c_str()) == 0 ? ", the name of the queue" : "";
    names += shm_unlink(name.c_str()) == 0 ? ", the name of the memory" : "";
    names += unlink(Path("socket").c_str()) == 0 ? ", the file of the socket" : "";
    names += unlink(Path("file").c_str()) == 0 ? ", the file" : "";
    return names;
}

std::string Steps::Text(const IServiceObject* object) {
    return object == nullptr
               ? "null"
               : object->GetServiceName() + ", type " + std::to_string(static_cast<int>(object->GetServiceType()));
}

const std::vector<Scenario>& Scenarios() {
#ifdef __SANITIZE_THREAD__  // It takes a child that borrows the memory for a copy, and other threads for ended in it.
    constexpr bool childrenAreAlone = true;
#else
    constexpr bool childrenAreAlone = false;
#endif
    static const std::vector<Scenario> scenarios{
        {"singletons", &Singletons, true},
        {"settings of the process", &Settings, true},
        {"mutex", &Mutexes},
        {"inter-process mutex", &IpcMutexes},
        {"condition variable", &ConditionVariables},
        {"inter-process condition variable", &IpcConditionVariables},
        {"read-write lock", &RWLocks},
        {"semaphore", &Semaphores},
        {"named semaphore", &NamedSemaphores},
        {"thread", &Threads},
        {"timer", &Timers},
        {"stream socket", &StreamSockets},
        {"datagram socket", &DatagramSockets},
        {"local socket", &LocalSockets},
        {"message queue", &MessageQueues},
        {"shared memory", &SharedMemory},
        {"file", &Files},
        {"network interface", &NetworkInterfaces},
        {"process", &Processes, childrenAreAlone},
        {"shared library", &SharedLibraries},
        {"signal handler", &SignalHandlers},
        // What it comes to depends on whether there is a daemon.
        {"trace controller", &TraceControllers, true},
    };
    return scenarios;
}

Belongings::Belongings() : descriptors(OpenDescriptors()), threads(CountThreads()), mappings(CountMappings()) {}

std::string Belongings::More() const {
    const auto& factory = *ServiceFactory::GetInstance();
    std::string more;
    if (factory.GetStatistics().GetNumOfObjectsCreated() != 0 || !factory.GetRegisteredServiceObjects().empty()) {
        more += ", a service object";
    }
    more += OpenDescriptors() != descriptors ? ", a descriptor" : "";
    more += CountMappings() != mappings ? ", a mapping" : "";
    more += waitpid(-1, nullptr, WNOHANG) != -1 ? ", a child" : "";
    // Those that nobody joins may take a moment, and so may one that has been joined.
    for (const auto start = std::chrono::steady_clock::now();
         CountThreads() > threads && std::chrono::steady_clock::now() - start < std::chrono::seconds(10);) {
        sched_yield();
    }
    more += CountThreads() > threads ? ", a thread" : "";
    return more;
}

std::string CurrentException() {
    try {
        throw;
    } catch (const std::exception& exception) {
        const std::string type = Kel::RuntimeTypeInfo::GetTypeName(typeid(exception));
        return type.substr(type.rfind(':') + 1) + " \"" + exception.what() + "\"";
    }
}
