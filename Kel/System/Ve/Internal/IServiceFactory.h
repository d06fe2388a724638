#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ICondVariableService.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/IRWLockService.h>
#include <Kel/System/Ve/ISemaphoreService.h>
#include <Kel/System/Ve/IThreadService.h>
#include <Kel/System/Ve/ITimerService.h>

namespace Kel::System::Ve::Internal {

/// Makes all services. Each operation returns a new object that the caller owns and deletes, before the factory is
/// disposed; deleting it takes it out of the registry. What a service's construction throws is passed on, and then
/// nothing is left behind. May be called from any thread.
/// The order of the virtual operations is part of the binary interface.
class KEL_API IServiceFactory {
public:
    virtual ~IServiceFactory() = default;

    /// Makes a mutex for the threads of this process, free, with priority inheritance.
    virtual IMutexService* CreateMutex(bool recursive) = 0;

    /// Makes an unnamed semaphore for the threads of this process.
    virtual ISemaphoreService* CreateSemaphore(unsigned int initialCount) = 0;

    /// Makes a named semaphore for all processes. Throws AlreadyExistsException when the name is in use.
    virtual ISemaphoreService* CreateSemaphore(const BasicString& name, unsigned int initialCount) = 0;

    /// Opens a named semaphore that exists.
    virtual ISemaphoreService* CreateSemaphore(const BasicString& name) = 0;

    /// Makes a timer that will call `handler(argument)`, unless null, every `period` microseconds once it is started.
    /// `priority` and `cpuAffinity` as in `ITimerService`.
    virtual ITimerService* CreateTimer(unsigned int period, const BasicString& name, unsigned int priority,
                                       void* argument, void (*handler)(void*), unsigned int cpuAffinity) = 0;

    /// Makes a thread that will run `function(nullptr)` once it is started, without name, with default settings.
    virtual IThreadService* CreateThread(void* (*function)(void*)) = 0;

    /// The same with an argument.
    virtual IThreadService* CreateThread(void* (*function)(void*), void* argument) = 0;

    /// The same with all settings, as in `IThreadService`.
    virtual IThreadService* CreateThread(void* (*function)(void*), void* argument, const BasicString& name,
                                         unsigned int priority, unsigned int cpuAffinity, unsigned int stackSize) = 0;

    /// Makes a read-write lock for the threads of this process.
    virtual IRWLockService* CreateRWLock() = 0;

    /// Makes a condition variable for the threads of this process.
    virtual ICondVariableService* CreateConditionVariable() = 0;

protected:
    IServiceFactory() = default;
    IServiceFactory(const IServiceFactory&) = delete;
    IServiceFactory& operator=(const IServiceFactory&) = delete;
};

}  // namespace Kel::System::Ve::Internal
