#pragma once

namespace Kel::System::Ve::Internal {

/// Holds a mutex while it lives. `Mutex` has `Lock` and `Unlock`.
template <typename Mutex>
class MutexGuard {
public:
    explicit MutexGuard(Mutex& guarded) : mutex(guarded) { mutex.Lock(); }
    ~MutexGuard() { mutex.Unlock(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    Mutex& mutex;
};

}  // namespace Kel::System::Ve::Internal
