#include <Kel/System/Ve/Internal/CondVariableServiceBase.h>

#include <Kel/System/Ve/Exceptions/VeException.h>

namespace Kel::System::Ve::Internal {

using Exceptions::VeException;

namespace {

// A wait would release a recursive mutex only once. The caller's lock is gone when the exception arrives.
void RefuseRecursive(IMutexService& mutex, const char* operation = __builtin_FUNCTION()) {
    if (mutex.IsRecursive()) {
        mutex.Unlock();
        throw VeException("{0}: Recursive locks are not supported by condition variables.", operation);
    }
}

}  // namespace

void CondVariableServiceBase::Wait(IMutexService& mutex) {
    RefuseRecursive(mutex);
    WaitInternal(mutex);
}

bool CondVariableServiceBase::WaitFor(IMutexService& mutex, unsigned long timeoutMs) {
    RefuseRecursive(mutex);
    return WaitForInternal(mutex, timeoutMs);
}

bool CondVariableServiceBase::WaitUntil(IMutexService& mutex, SteadyTimePoint deadline) {
    RefuseRecursive(mutex);
    return WaitUntilInternal(mutex, deadline);
}

}  // namespace Kel::System::Ve::Internal
