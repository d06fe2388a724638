#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ICondVariableService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// What the condition variables of all platforms have in common: they refuse recursive mutexes, after unlocking them.
class KEL_API CondVariableServiceBase : public ICondVariableService, public virtual ServiceObjectBase {
public:
    void Wait(IMutexService& mutex) final;
    bool WaitFor(IMutexService& mutex, unsigned long timeoutMs) final;
    bool WaitUntil(IMutexService& mutex, SteadyTimePoint deadline) final;

    /// The waits themselves, with a mutex that is not recursive.
    virtual void WaitInternal(IMutexService& mutex) = 0;
    virtual bool WaitForInternal(IMutexService& mutex, unsigned long timeoutMs) = 0;
    virtual bool WaitUntilInternal(IMutexService& mutex, SteadyTimePoint deadline) = 0;
};

}  // namespace Kel::System::Ve::Internal
