#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/Linux/PosixMutex.h>
#include <Kel/System/Ve/Internal/MutexServiceBase.h>

namespace Kel::System::Ve::Internal::Linux {

/// The mutex service on Linux. What `Init` and `Destroy` throw is a VeException. "Owner died" can come of a mutex that
/// was initialised with `InterProcess`, from Lock, TimedLock and TryLock, and from a wait for a condition variable: as
/// with `IpcMutexService`.
class KEL_API MutexService final : public MutexServiceBase {
public:
    /// Who may use the mutex.
    enum Shared : int {
        InterProcess = 0,
        ProcessPrivate = 1,
    };

    /// `registers` is false only for the mutex that guards the registry itself.
    explicit MutexService(bool registers = true);
    ~MutexService() override;

    /// Makes the mutex; called once, right after construction.
    void Init(bool recursive, Shared shared);

    /// Destroys what `Init` has made; does nothing when that failed, or once it is done. Throws when the mutex is held,
    /// which goes on working. Called by the destructor, where a failure ends the process.
    void Destroy();

    bool IsRecursive() const override;
    void Lock() override;
    int TimedLock(unsigned int timeoutMs) override;
    bool TryLock() override;
    void Unlock() override;

    /// For calls that wait with the mutex.
    PosixMutex& GetPosixMutex() { return mutex; }

private:
    // Zero, the form of a free mutex, until it is initialised.
    PosixMutex mutex{};
    bool initialized = false;
};

}  // namespace Kel::System::Ve::Internal::Linux
