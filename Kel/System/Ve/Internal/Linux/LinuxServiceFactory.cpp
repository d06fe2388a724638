#include <Kel/System/Ve/Internal/Linux/LinuxServiceFactory.h>

#include <Kel/System/Ve/Internal/Linux/ConditionVariableService.h>
#include <Kel/System/Ve/Internal/Linux/FileService.h>
#include <Kel/System/Ve/Internal/Linux/MessageQueueService.h>
#include <Kel/System/Ve/Internal/Linux/MutexService.h>
#include <Kel/System/Ve/Internal/Linux/NetworkInterfaceInfo.h>
#include <Kel/System/Ve/Internal/Linux/ProcessService.h>
#include <Kel/System/Ve/Internal/Linux/RWLockService.h>
#include <Kel/System/Ve/Internal/Linux/SemaphoreService.h>
#include <Kel/System/Ve/Internal/Linux/SharedLibraryService.h>
#include <Kel/System/Ve/Internal/Linux/SharedMemoryService.h>
#include <Kel/System/Ve/Internal/Linux/SignalHandlerService.h>
#include <Kel/System/Ve/Internal/Linux/SocketService.h>
#include <Kel/System/Ve/Internal/Linux/ThreadService.h>
#include <Kel/System/Ve/Internal/Linux/TimerService.h>
#include <Kel/System/Ve/Internal/Linux/TraceControllerService.h>

#include <memory>

namespace Kel::System::Ve::Internal {

std::unique_ptr<ServiceFactory> ServiceFactory::CreatePlatformFactory() {
    return std::make_unique<Linux::LinuxServiceFactory>();
}

std::unique_ptr<IMutexService> ServiceFactory::CreateRegistryMutex() {
    auto mutex = std::make_unique<Linux::MutexService>(false);
    mutex->Init(true, Linux::MutexService::ProcessPrivate);
    return mutex;
}

}  // namespace Kel::System::Ve::Internal

namespace Kel::System::Ve::Internal::Linux {

IProcessService* LinuxServiceFactory::CreateProcess() { return new ProcessService(); }

ISharedLibraryService* LinuxServiceFactory::CreateSharedLibrary() { return new SharedLibraryService(); }

IMutexService* LinuxServiceFactory::CreateMutex(bool recursive) {
    auto mutex = std::make_unique<MutexService>();
    mutex->Init(recursive, MutexService::ProcessPrivate);
    return mutex.release();
}

ISemaphoreService* LinuxServiceFactory::CreateSemaphore(unsigned int initialCount) {
    return new SemaphoreService(initialCount);
}

ISemaphoreService* LinuxServiceFactory::CreateSemaphore(const BasicString& name, unsigned int initialCount) {
    return new SemaphoreService(name, initialCount);
}

ISemaphoreService* LinuxServiceFactory::CreateSemaphore(const BasicString& name) { return new SemaphoreService(name); }

ITimerService* LinuxServiceFactory::CreateTimer(unsigned int period, const BasicString& name, unsigned int priority,
                                                void* argument, void (*handler)(void*), unsigned int cpuAffinity) {
    auto timer = std::make_unique<TimerService>(period, name, priority, cpuAffinity);
    timer->SetHandler(argument, handler);
    return timer.release();
}

IThreadService* LinuxServiceFactory::CreateThread(void* (*function)(void*)) { return CreateThread(function, nullptr); }

IThreadService* LinuxServiceFactory::CreateThread(void* (*function)(void*), void* argument) {
    return CreateThread(function, argument, BasicString::Empty, 0, 0, 0);
}

IThreadService* LinuxServiceFactory::CreateThread(void* (*function)(void*), void* argument, const BasicString& name,
                                                  unsigned int priority, unsigned int cpuAffinity,
                                                  unsigned int stackSize) {
    return new ThreadService(function, argument, name, priority, cpuAffinity, stackSize);
}

ISharedMemoryService* LinuxServiceFactory::CreateSharedMemory(const BasicString& name, unsigned int size,
                                                              ISharedMemoryService::mode mode) {
    return new SharedMemoryService(name, size, mode);
}

ISocketService* LinuxServiceFactory::CreateSocket(ISocketService::SocketType type, ISocketService::SocketDomain domain,
                                                  ISocketService::SocketBlockingMode blockingMode) {
    return new SocketService(type, domain, blockingMode, true);
}

ISocketService* LinuxServiceFactory::CreateSocket(void* handle) { return new SocketService(handle); }

ISocketService* LinuxServiceFactory::CreateNonAbstractIpcSocket() {
    return new SocketService(ISocketService::SocketType::Datagram, ISocketService::SocketDomain::Local,
                             ISocketService::SocketBlockingMode::Blocking, false);
}

IFileService* LinuxServiceFactory::CreateFile(const BasicString& path, IFileService::FileMode mode,
                                              IFileService::FileAccess access, bool syncOnClose) {
    return new FileService(path, mode, access, syncOnClose);
}

IRWLockService* LinuxServiceFactory::CreateRWLock() { return new RWLockService(); }

IMessageQueueService* LinuxServiceFactory::CreateMessageQueue(const BasicString& name, bool blocking) {
    return new MessageQueueService(name, blocking);
}

IMessageQueueService* LinuxServiceFactory::CreateMessageQueue(const BasicString& name,
                                                              IMessageQueueService::OpenMode mode,
                                                              IMessageQueueService::Access access, bool blocking) {
    return new MessageQueueService(name, mode, access, blocking);
}

IMessageQueueService* LinuxServiceFactory::CreateMessageQueue(const BasicString& name,
                                                              IMessageQueueService::OpenMode mode,
                                                              IMessageQueueService::Access access, bool blocking,
                                                              long maxMessageCount, long maxMessageSize) {
    return new MessageQueueService(name, mode, access, blocking, maxMessageCount, maxMessageSize);
}

ICondVariableService* LinuxServiceFactory::CreateConditionVariable() { return new ConditionVariableService(); }

ITraceControllerService* LinuxServiceFactory::CreateTraceController() { return new TraceControllerService(); }

ISignalHandlerService* LinuxServiceFactory::CreateSignalHandler() { return new SignalHandlerService(); }

INetworkInterfaceInfo* LinuxServiceFactory::CreateNetworkInterfaceInfo(const BasicString& interfaceName,
                                                                       BasicString& error) {
    return NetworkInterfaceInfo::Create(interfaceName, error);
}

}  // namespace Kel::System::Ve::Internal::Linux
