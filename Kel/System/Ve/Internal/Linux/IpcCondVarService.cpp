#include <Kel/System/Ve/Internal/Linux/IpcCondVarService.h>

#include <Kel/System/Ve/Internal/Linux/PosixCondition.h>
#include <Kel/System/Ve/Internal/Linux/SystemCall.h>
#include <Kel/System/Ve/Internal/Linux/TimeoutConversion.h>

#include <cerrno>
#include <type_traits>

namespace Kel::System::Ve::Internal::Linux {

// Its address is that of the POSIX condition variable.
static_assert(std::is_standard_layout_v<IpcCondVarService>);
static_assert(sizeof(IpcCondVarService) == sizeof(pthread_cond_t));

IpcCondVarService::IpcCondVarService() {
    // Left as it is: destroying it would release nothing.
    pthread_condattr_t attributes;
    InitCondition(condition, attributes, PTHREAD_PROCESS_SHARED);
}

void IpcCondVarService::Destroy() { CheckReturnedCode(pthread_cond_destroy(&condition)); }

void IpcCondVarService::NotifyOne() { CheckReturnedCode(pthread_cond_signal(&condition)); }

void IpcCondVarService::NotifyAll() { CheckReturnedCode(pthread_cond_broadcast(&condition)); }

void IpcCondVarService::Wait(IpcMutexService& mutex) { CheckReturnedCode(WaitForCondition(condition, mutex)); }

bool IpcCondVarService::WaitFor(IpcMutexService& mutex, unsigned long timeoutMs) {
    timespec deadline;
    TimeoutConversion::Convert(timeoutMs, deadline, TimeoutConversion::Monotonic);
    const int code = WaitForCondition(condition, mutex, deadline);
    if (code == ETIMEDOUT) {
        return false;
    }
    if (code != 0) {
        // The text is that of errno, which the call leaves alone.
        ThrowErrorText(errno);
    }
    return true;
}

}  // namespace Kel::System::Ve::Internal::Linux
