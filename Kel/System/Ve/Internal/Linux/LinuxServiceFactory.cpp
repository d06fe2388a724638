#include <Kel/System/Ve/Internal/Linux/LinuxServiceFactory.h>

#include <Kel/System/Ve/Internal/Linux/ConditionVariableService.h>
#include <Kel/System/Ve/Internal/Linux/MutexService.h>
#include <Kel/System/Ve/Internal/Linux/RWLockService.h>
#include <Kel/System/Ve/Internal/Linux/SemaphoreService.h>
#include <Kel/System/Ve/Internal/Linux/ThreadService.h>
#include <Kel/System/Ve/Internal/Linux/TimerService.h>

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

IRWLockService* LinuxServiceFactory::CreateRWLock() { return new RWLockService(); }

ICondVariableService* LinuxServiceFactory::CreateConditionVariable() { return new ConditionVariableService(); }

}  // namespace Kel::System::Ve::Internal::Linux
