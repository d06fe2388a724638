#include <Kel/System/Ve/Internal/Linux/ConditionVariableService.h>

#include <Kel/System/Ve/Internal/Linux/MutexService.h>
#include <Kel/System/Ve/Internal/Linux/PosixCondition.h>
#include <Kel/System/Ve/Internal/Linux/SystemCall.h>
#include <Kel/System/Ve/Internal/Linux/TimeoutConversion.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace Kel::System::Ve::Internal::Linux {

namespace {

PosixMutex& PosixMutexOf(IMutexService& mutex) { return dynamic_cast<MutexService&>(mutex).GetPosixMutex(); }

}  // namespace

ConditionVariableService::ConditionVariableService()
    : ServiceObjectBase("CondVariableService", ServiceType::ConditionVariable, true) {
    pthread_condattr_t attributes;
    InitCondition(condition, attributes, PTHREAD_PROCESS_PRIVATE);
    CheckReturnedCode(pthread_condattr_destroy(&attributes), "Could not destroy condition variable attribute.");
}

ConditionVariableService::~ConditionVariableService() { Destroy(); }

void ConditionVariableService::Destroy() {
    if (!destroyed) {
        CheckReturnedCode(pthread_cond_destroy(&condition));
        destroyed = true;
    }
}

void ConditionVariableService::NotifyOne() { CheckReturnedCode(pthread_cond_signal(&condition)); }

void ConditionVariableService::NotifyAll() { CheckReturnedCode(pthread_cond_broadcast(&condition)); }

void ConditionVariableService::WaitInternal(IMutexService& mutex) {
    CheckReturnedCode(WaitForCondition(condition, PosixMutexOf(mutex)));
}

bool ConditionVariableService::WaitForInternal(IMutexService& mutex, unsigned long timeoutMs) {
    timespec deadline;
    TimeoutConversion::Convert(timeoutMs, deadline, TimeoutConversion::Monotonic);
    return WaitUntilInternal(mutex, deadline);
}

bool ConditionVariableService::WaitUntilInternal(IMutexService& mutex, SteadyTimePoint deadline) {
    // The steady clock is the monotonic one. The system refuses times before its epoch; that is as long past.
    timespec time;
    TimeoutConversion::NsAbsoluteToTimespec(std::max(deadline.time_since_epoch(), std::chrono::nanoseconds::zero()),
                                            time);
    return WaitUntilInternal(mutex, time);
}

bool ConditionVariableService::WaitUntilInternal(IMutexService& mutex, timespec& deadline) {
    const int code = WaitForCondition(condition, PosixMutexOf(mutex), deadline);
    if (code == ETIMEDOUT) {
        return false;
    }
    CheckReturnedCode(code);
    return true;
}

}  // namespace Kel::System::Ve::Internal::Linux
