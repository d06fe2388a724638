#include "Families.h"

#include <Kel/System/Ve/ICondVariableService.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/IRWLockService.h>
#include <Kel/System/Ve/ISemaphoreService.h>

#include <pthread.h>
#include <semaphore.h>
#include <time.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <shared_mutex>

using Kel::System::Ve::ICondVariableService;
using Kel::System::Ve::IMutexService;
using Kel::System::Ve::IRWLockService;
using Kel::System::Ve::ISemaphoreService;

namespace {

// As the library makes its mutexes.
std::shared_ptr<pthread_mutex_t> BareMutex(int type) {
    auto mutex = std::make_shared<pthread_mutex_t>();
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    pthread_mutex_init(mutex.get(), &attributes);
    pthread_mutexattr_destroy(&attributes);
    return mutex;
}

timespec InOneSecond() {
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    ++deadline.tv_sec;
    return deadline;
}

void RegisterMutexes(ServiceFactory& factory) {
    const std::shared_ptr<IMutexService> mutex(factory.CreateMutex(false));
    const std::shared_ptr<IMutexService> recursive(factory.CreateMutex(true));
    const auto bare = BareMutex(PTHREAD_MUTEX_NORMAL);
    const auto bareRecursive = BareMutex(PTHREAD_MUTEX_RECURSIVE);
    const auto standard = std::make_shared<std::timed_mutex>();

    Register("mutex/lock and unlock/library", [mutex] {
        mutex->Lock();
        mutex->Unlock();
    });
    Register("mutex/lock and unlock/bare", [bare] {
        pthread_mutex_lock(bare.get());
        pthread_mutex_unlock(bare.get());
    });
    Register("mutex/lock and unlock/std", [standard] {
        standard->lock();
        standard->unlock();
    });
    Register("mutex/try and unlock/library", [mutex] {
        benchmark::DoNotOptimize(mutex->TryLock());
        mutex->Unlock();
    });
    Register("mutex/try and unlock/bare", [bare] {
        benchmark::DoNotOptimize(pthread_mutex_trylock(bare.get()));
        pthread_mutex_unlock(bare.get());
    });
    Register("mutex/timed lock and unlock/library", [mutex] {
        benchmark::DoNotOptimize(mutex->TimedLock(1000));
        mutex->Unlock();
    });
    Register("mutex/timed lock and unlock/bare", [bare] {
        const timespec deadline = InOneSecond();
        benchmark::DoNotOptimize(pthread_mutex_timedlock(bare.get(), &deadline));
        pthread_mutex_unlock(bare.get());
    });
    Register("mutex/recursive lock and unlock/library", [recursive] {
        recursive->Lock();
        recursive->Unlock();
    });
    Register("mutex/recursive lock and unlock/bare", [bareRecursive] {
        pthread_mutex_lock(bareRecursive.get());
        pthread_mutex_unlock(bareRecursive.get());
    });
}

void RegisterConditionVariables(ServiceFactory& factory) {
    const std::shared_ptr<ICondVariableService> condition(factory.CreateConditionVariable());
    const auto bare = std::make_shared<pthread_cond_t>();
    pthread_cond_init(bare.get(), nullptr);
    const auto standard = std::make_shared<std::condition_variable>();

    Register("condition variable/notify nobody/library", [condition] { condition->NotifyOne(); });
    Register("condition variable/notify nobody/bare", [bare] { pthread_cond_signal(bare.get()); });
    Register("condition variable/notify nobody/std", [standard] { standard->notify_one(); });
}

void RegisterReadWriteLocks(ServiceFactory& factory) {
    const std::shared_ptr<IRWLockService> lock(factory.CreateRWLock());
    const auto bare = std::make_shared<pthread_rwlock_t>();
    pthread_rwlock_init(bare.get(), nullptr);
    const auto standard = std::make_shared<std::shared_mutex>();

    Register("read-write lock/read/library", [lock] {
        lock->AcquireReadLock();
        lock->ReleaseReadLock();
    });
    Register("read-write lock/read/bare", [bare] {
        pthread_rwlock_rdlock(bare.get());
        pthread_rwlock_unlock(bare.get());
    });
    Register("read-write lock/read/std", [standard] {
        standard->lock_shared();
        standard->unlock_shared();
    });
    Register("read-write lock/write/library", [lock] {
        lock->AcquireWriteLock();
        lock->ReleaseWriteLock();
    });
    Register("read-write lock/write/bare", [bare] {
        pthread_rwlock_wrlock(bare.get());
        pthread_rwlock_unlock(bare.get());
    });
    Register("read-write lock/write/std", [standard] {
        standard->lock();
        standard->unlock();
    });
    Register("read-write lock/timed write/library", [lock] {
        benchmark::DoNotOptimize(lock->TimedAcquireWriteLock(1000));
        lock->ReleaseWriteLock();
    });
    Register("read-write lock/timed write/bare", [bare] {
        const timespec deadline = InOneSecond();
        pthread_rwlock_timedwrlock(bare.get(), &deadline);
        pthread_rwlock_unlock(bare.get());
    });
}

void RegisterSemaphores(ServiceFactory& factory) {
    const std::shared_ptr<ISemaphoreService> semaphore(factory.CreateSemaphore(0));
    const auto bare = std::make_shared<sem_t>();
    sem_init(bare.get(), 0, 0);

    Register("semaphore/post and wait/library", [semaphore] {
        semaphore->Post();
        semaphore->Wait(0);
    });
    Register("semaphore/post and wait/bare", [bare] {
        sem_post(bare.get());
        sem_wait(bare.get());
    });
    Register("semaphore/post and timed wait/library", [semaphore] {
        semaphore->Post();
        semaphore->Wait(1000);
    });
    Register("semaphore/post and timed wait/bare", [bare] {
        sem_post(bare.get());
        const timespec deadline = InOneSecond();
        sem_timedwait(bare.get(), &deadline);
    });
}

}  // namespace

void RegisterSynchronization(ServiceFactory& factory) {
    RegisterMutexes(factory);
    RegisterConditionVariables(factory);
    RegisterReadWriteLocks(factory);
    RegisterSemaphores(factory);
}
