#include <Kel/System/Ve/Internal/TimerServiceBase.h>

#include <Kel/System/Ve/Exceptions/VeException.h>

namespace Kel::System::Ve::Internal {

using Exceptions::VeException;

void TimerServiceBase::SetPriority(unsigned int newPriority) {
    if (isStarted) {
        ChangePriority(newPriority);
    }
    priority = newPriority;
}

void TimerServiceBase::SetName(const BasicString& newName) {
    const BasicString cutName = newName.substr(0, GetMaxNameLength());
    if (isStarted) {
        ChangeName(cutName);
    }
    name = cutName;
}

void TimerServiceBase::SetCPUAffinity(unsigned int mask) {
    if (isStarted) {
        ChangeCpuAffinity(mask);
    }
    cpuAffinity = mask;
}

void TimerServiceBase::SetHandler(void* argument, void (*newHandler)(void*)) {
    if (isStarted) {
        throw VeException("{0}: Changing handlers of an already started timer is not possible.", __func__);
    }
    handlerArgument = argument;
    handler = newHandler;
}

}  // namespace Kel::System::Ve::Internal
