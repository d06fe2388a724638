#include <Kel/System/Ve/Internal/Linux/MutexService.h>

namespace Kel::System::Ve::Internal::Linux {

MutexService::MutexService(bool registers) : ServiceObjectBase("MutexService", ServiceType::Mutex, registers) {}

MutexService::~MutexService() { Destroy(); }

void MutexService::Init(bool recursive, Shared shared) {
    mutex.Init(recursive, shared == InterProcess ? PTHREAD_PROCESS_SHARED : PTHREAD_PROCESS_PRIVATE);
    initialized = true;
}

void MutexService::Destroy() {
    if (initialized) {
        mutex.Destroy();
        initialized = false;
    }
}

bool MutexService::IsRecursive() const { return mutex.IsRecursive(); }

void MutexService::Lock() { mutex.Lock(); }

int MutexService::TimedLock(unsigned int timeoutMs) { return mutex.TimedLock(timeoutMs); }

bool MutexService::TryLock() { return mutex.TryLock(); }

void MutexService::Unlock() { mutex.Unlock(); }

}  // namespace Kel::System::Ve::Internal::Linux
