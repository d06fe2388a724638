#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

namespace Kel::System::Ve::Internal::Linux {

/// The factory on Linux: makes the Linux class of each service.
class KEL_API LinuxServiceFactory final : public ServiceFactory {
public:
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
    IRWLockService* CreateRWLock() override;
    ICondVariableService* CreateConditionVariable() override;
};

}  // namespace Kel::System::Ve::Internal::Linux
