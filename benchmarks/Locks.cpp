#include "Bare.h"
#include "Factory.h"
#include "Families.h"
#include "Works.h"

#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/IRWLockService.h>

#include <memory>
#include <mutex>
#include <shared_mutex>

using Kel::System::Ve::IMutexService;
using Kel::System::Ve::IRWLockService;

namespace {

unsigned int Milliseconds(std::chrono::milliseconds duration) { return static_cast<unsigned int>(duration.count()); }

struct LibraryMutex {
    explicit LibraryMutex(bool recursive = false) : mutex(Factory().CreateMutex(recursive)) {}

    void lock() { mutex->Lock(); }
    void unlock() { mutex->Unlock(); }
    bool try_lock() { return mutex->TryLock(); }
    bool try_lock_for(std::chrono::milliseconds duration) { return mutex->TimedLock(Milliseconds(duration)) == 0; }

    std::unique_ptr<IMutexService> mutex;
};

struct LibraryRecursiveMutex : LibraryMutex {
    LibraryRecursiveMutex() : LibraryMutex(true) {}
};

struct BareRecursiveMutex : BareMutex {
    BareRecursiveMutex() : BareMutex(PTHREAD_MUTEX_RECURSIVE) {}
};

struct LibraryLock {
    void lock() { service->AcquireWriteLock(); }
    void unlock() { service->ReleaseWriteLock(); }
    bool try_lock() { return service->TryAcquireWriteLock(); }
    bool try_lock_for(std::chrono::milliseconds duration) {
        return service->TimedAcquireWriteLock(Milliseconds(duration));
    }
    void lock_shared() { service->AcquireReadLock(); }
    void unlock_shared() { service->ReleaseReadLock(); }
    bool try_lock_shared() { return service->TryAcquireReadLock(); }
    bool try_lock_shared_for(std::chrono::milliseconds duration) {
        return service->TimedAcquireReadLock(Milliseconds(duration));
    }

    std::unique_ptr<IRWLockService> service{Factory().CreateRWLock()};
};

}  // namespace

void RegisterLocks() {
    RegisterMutexes<LibraryMutex, LibraryRecursiveMutex, LibraryMutex>("library");
    RegisterMutexes<BareMutex, BareRecursiveMutex, BareMutex>("bare");
    RegisterMutexes<std::mutex, std::recursive_mutex, std::timed_mutex>("std");
    RegisterReadWriteLocks<LibraryLock>("library");
    RegisterReadWriteLocks<BareLock>("bare");
    RegisterReadWriteLocks<std::shared_mutex>("std");
    RegisterTimedReadWriteLocks<LibraryLock>("library");
    RegisterTimedReadWriteLocks<BareLock>("bare");
    RegisterTimedReadWriteLocks<std::shared_timed_mutex>("std");
}
