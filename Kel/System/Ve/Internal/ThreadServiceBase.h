#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IThreadService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

#include <atomic>

namespace Kel::System::Ve::Internal {

/// What the threads of all platforms have in common: the settings and the rules for changing them. The static
/// operations are the platform's.
class KEL_API ThreadServiceBase : public IThreadService, public virtual ServiceObjectBase {
public:
    /// Suspends the calling thread for that many milliseconds, signals notwithstanding. A cancellation point.
    static void Sleep(unsigned int milliseconds);

    /// Returns the id of the calling thread: the lower 32 bits of its POSIX handle.
    static unsigned int GetCurrentThreadId();

    /// Lets the calling thread be cancelled anywhere (true) or at cancellation points only (false, the default). While
    /// it may be cancelled anywhere, it calls nothing but computes; on 32-bit ARM it does not return either.
    static void SetAsynchronousCancelability(bool asynchronous);

    /// Returns how many characters of a name are used: 15.
    static unsigned int GetMaxThreadNameLength() { return 15; }

    unsigned int GetCpuAffinity() const final { return cpuAffinity; }
    unsigned int GetPriority() const final { return priority; }
    unsigned int GetStackSize() const final { return stackSize; }
    const BasicString& GetName() const final { return name; }
    void SetCpuAffinity(unsigned int mask) final;
    void SetPriority(unsigned int newPriority) final;
    void SetStackSize(unsigned int bytes) final;
    void SetName(const BasicString& newName) final;
    void SetThreadFunction(void* (*function)(void*)) final { threadFunction = function; }

protected:
    /// Keeps what is to be run.
    ThreadServiceBase(void* (*function)(void*), void* functionArgument)
        : threadFunction(function), argument(functionArgument) {}

private:
    unsigned int stackSize = 0;
    BasicString name;
    unsigned int priority = 0;
    unsigned int cpuAffinity = 0;

protected:
    /// What the next start runs.
    void* (*threadFunction)(void*);
    /// What it is given.
    void* argument;
    /// Set by the first thread that is started, just before the start returns; never cleared.
    std::atomic<bool> isStarted{false};
};

}  // namespace Kel::System::Ve::Internal
