#include <Kel/System/Ve/Internal/ThreadServiceBase.h>

#include <Kel/System/Ve/Exceptions/VeException.h>

namespace Kel::System::Ve::Internal {

using Exceptions::VeException;

void ThreadServiceBase::SetCpuAffinity(unsigned int mask) {
    if (isStarted) {
        ChangeCpuAffinity(mask);
    }
    cpuAffinity = mask;
}

void ThreadServiceBase::SetPriority(unsigned int newPriority) {
    if (isStarted) {
        ChangePriority(newPriority);
    }
    priority = newPriority;
}

void ThreadServiceBase::SetStackSize(unsigned int bytes) {
    if (isStarted) {
        throw VeException("{0}: Changing stacksize of an already created thread is not possible.", __func__);
    }
    stackSize = bytes;
}

void ThreadServiceBase::SetName(const BasicString& newName) {
    const BasicString cutName = newName.substr(0, GetMaxThreadNameLength());
    if (isStarted) {
        ChangeName(cutName);
    }
    name = cutName;
}

}  // namespace Kel::System::Ve::Internal
