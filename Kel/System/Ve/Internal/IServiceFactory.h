#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ICondVariableService.h>
#include <Kel/System/Ve/IFileService.h>
#include <Kel/System/Ve/IMessageQueueService.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/INetworkInterfaceInfo.h>
#include <Kel/System/Ve/IProcessService.h>
#include <Kel/System/Ve/IRWLockService.h>
#include <Kel/System/Ve/ISemaphoreService.h>
#include <Kel/System/Ve/ISharedLibraryService.h>
#include <Kel/System/Ve/ISharedMemoryService.h>
#include <Kel/System/Ve/ISignalHandlerService.h>
#include <Kel/System/Ve/ISocketService.h>
#include <Kel/System/Ve/IThreadService.h>
#include <Kel/System/Ve/ITimerService.h>
#include <Kel/System/Ve/ITraceControllerService.h>

namespace Kel::System::Ve::Internal {

/// Makes all services. Each operation returns a new object that the caller owns and deletes, before the factory is
/// disposed; deleting it takes it out of the registry. What a service's construction throws is passed on, and then
/// nothing is left behind. All throw VeException when the system refuses, unless said otherwise, and `std::bad_alloc`
/// without memory. May be called from any thread. None waits, and none is a cancellation point, but for CreateFile.
/// The order of the virtual operations is part of the binary interface.
class KEL_API IServiceFactory {
public:
    virtual ~IServiceFactory() = default;

    /// Makes a process object, with no child yet.
    virtual IProcessService* CreateProcess() = 0;

    /// Makes a shared library object, with no library yet.
    virtual ISharedLibraryService* CreateSharedLibrary() = 0;

    /// Makes a mutex for the threads of this process, free, with priority inheritance.
    virtual IMutexService* CreateMutex(bool recursive) = 0;

    /// Makes an unnamed semaphore for the threads of this process. The count is 2^31 - 1 at most.
    virtual ISemaphoreService* CreateSemaphore(unsigned int initialCount) = 0;

    /// Makes a named semaphore for all processes; names begin with a slash. Throws AlreadyExistsException when the name
    /// is in use.
    virtual ISemaphoreService* CreateSemaphore(const BasicString& name, unsigned int initialCount) = 0;

    /// Opens a named semaphore that exists.
    virtual ISemaphoreService* CreateSemaphore(const BasicString& name) = 0;

    /// Makes a timer that will call `handler(argument)`, unless null, every `period` microseconds once it is started.
    /// `priority` and `cpuAffinity` as in `ITimerService`; whether they are permitted shows at the start.
    virtual ITimerService* CreateTimer(unsigned int period, const BasicString& name, unsigned int priority,
                                       void* argument, void (*handler)(void*), unsigned int cpuAffinity) = 0;

    /// Makes a thread that will run `function(nullptr)` once it is started, without name, with default settings.
    virtual IThreadService* CreateThread(void* (*function)(void*)) = 0;

    /// The same with an argument.
    virtual IThreadService* CreateThread(void* (*function)(void*), void* argument) = 0;

    /// The same with all settings, as in `IThreadService`; whether they are permitted shows at the start.
    virtual IThreadService* CreateThread(void* (*function)(void*), void* argument, const BasicString& name,
                                         unsigned int priority, unsigned int cpuAffinity, unsigned int stackSize) = 0;

    /// Creates or opens memory that processes share under a name, which begins with a slash, and maps `size` bytes of
    /// it. Creating what exists empties it. Opening does not look how large it is: what is used beyond its end raises
    /// SIGBUS. Throws `Kel::Exception`.
    virtual ISharedMemoryService* CreateSharedMemory(const BasicString& name, unsigned int size,
                                                     ISharedMemoryService::mode mode) = 0;

    /// Makes a socket. A local one binds and connects to names in the abstract namespace. When the system refuses a
    /// blocking one, it has the descriptor -1, and nothing can be done with it.
    virtual ISocketService* CreateSocket(ISocketService::SocketType type, ISocketService::SocketDomain domain,
                                         ISocketService::SocketBlockingMode blockingMode) = 0;

    /// Makes a socket of a descriptor, an int that `handle` points to; a negative one is none. The object owns it from
    /// then on.
    virtual ISocketService* CreateSocket(void* handle) = 0;

    /// Makes a blocking local datagram socket that connects to socket files.
    virtual ISocketService* CreateNonAbstractIpcSocket() = 0;

    /// Opens a file, see `IFileService`, also for what it throws. Access `Write`, too, needs the right to read the
    /// file. `syncOnClose` has its Close wait until the data is on the disk. Waits for the storage. A cancellation
    /// point.
    virtual IFileService* CreateFile(const BasicString& path, IFileService::FileMode mode,
                                     IFileService::FileAccess access, bool syncOnClose) = 0;

    /// Makes a read-write lock for the threads of this process.
    virtual IRWLockService* CreateRWLock() = 0;

    /// Opens a message queue that exists, to send and to receive; names begin with a slash. A queue that is not
    /// blocking never waits.
    virtual IMessageQueueService* CreateMessageQueue(const BasicString& name, bool blocking) = 0;

    /// Opens or creates a message queue. One that is created has the system's default size.
    virtual IMessageQueueService* CreateMessageQueue(const BasicString& name, IMessageQueueService::OpenMode mode,
                                                     IMessageQueueService::Access access, bool blocking) = 0;

    /// The same. One that is created holds `maxMessageCount` messages of up to `maxMessageSize` bytes, which the limits
    /// of the system and of the user allow.
    virtual IMessageQueueService* CreateMessageQueue(const BasicString& name, IMessageQueueService::OpenMode mode,
                                                     IMessageQueueService::Access access, bool blocking,
                                                     long maxMessageCount, long maxMessageSize) = 0;

    /// Makes a condition variable for the threads of this process.
    virtual ICondVariableService* CreateConditionVariable() = 0;

    /// Makes a controller of tracing sessions.
    virtual ITraceControllerService* CreateTraceController() = 0;

    /// Makes what sets up the process's crash handlers.
    virtual ISignalHandlerService* CreateSignalHandler() = 0;

    /// Reads the IPv4 and hardware addresses of a network interface. Returns null when that fails, and then `error`
    /// says why.
    virtual INetworkInterfaceInfo* CreateNetworkInterfaceInfo(const BasicString& interfaceName, BasicString& error) = 0;

protected:
    IServiceFactory() = default;
    IServiceFactory(const IServiceFactory&) = delete;
    IServiceFactory& operator=(const IServiceFactory&) = delete;
};

}  // namespace Kel::System::Ve::Internal
