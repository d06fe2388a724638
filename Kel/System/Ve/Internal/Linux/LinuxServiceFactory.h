#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

namespace Kel::System::Ve::Internal::Linux {

/// The factory on Linux: makes the Linux class of each service.
class KEL_API LinuxServiceFactory final : public ServiceFactory {
public:
    IProcessService* CreateProcess() override;
    ISharedLibraryService* CreateSharedLibrary() override;
    IMutexService* CreateMutex(bool recursive) override;
    ISemaphoreService* CreateSemaphore(unsigned int initialCount) override;
    ISemaphoreService* CreateSemaphore(const BasicString& name, unsigned int initialCount) override;
    ISemaphoreService* CreateSemaphore(const BasicString& name) override;
    ITimerService* CreateTimer(unsigned int period, const BasicString& name, unsigned int priority, void* argument,
                               void (*handler)(void*), unsigned int cpuAffinity) override;
    IThreadService* CreateThread(void* (*function)(void*)) override;
    IThreadService* CreateThread(void* (*function)(void*), void* argument) override;
    IThreadService* CreateThread(void* (*function)(void*), void* argument, const BasicString& name,
                                 unsigned int priority, unsigned int cpuAffinity, unsigned int stackSize) override;
    ISharedMemoryService* CreateSharedMemory(const BasicString& name, unsigned int size,
                                             ISharedMemoryService::mode mode) override;
    ISocketService* CreateSocket(ISocketService::SocketType type, ISocketService::SocketDomain domain,
                                 ISocketService::SocketBlockingMode blockingMode) override;
    ISocketService* CreateSocket(void* handle) override;
    ISocketService* CreateNonAbstractIpcSocket() override;
    IFileService* CreateFile(const BasicString& path, IFileService::FileMode mode, IFileService::FileAccess access,
                             bool syncOnClose) override;
    IRWLockService* CreateRWLock() override;
    IMessageQueueService* CreateMessageQueue(const BasicString& name, bool blocking) override;
    IMessageQueueService* CreateMessageQueue(const BasicString& name, IMessageQueueService::OpenMode mode,
                                             IMessageQueueService::Access access, bool blocking) override;
    IMessageQueueService* CreateMessageQueue(const BasicString& name, IMessageQueueService::OpenMode mode,
                                             IMessageQueueService::Access access, bool blocking, long maxMessageCount,
                                             long maxMessageSize) override;
    ICondVariableService* CreateConditionVariable() override;
    ITraceControllerService* CreateTraceController() override;
    ISignalHandlerService* CreateSignalHandler() override;
    INetworkInterfaceInfo* CreateNetworkInterfaceInfo(const BasicString& interfaceName, BasicString& error) override;
};

}  // namespace Kel::System::Ve::Internal::Linux
