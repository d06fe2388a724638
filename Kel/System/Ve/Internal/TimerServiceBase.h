#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ITimerService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

#include <atomic>

namespace Kel::System::Ve::Internal {

/// What the timers of all platforms have in common: the settings and the rules for changing them.
class KEL_API TimerServiceBase : public ITimerService, public virtual ServiceObjectBase {
public:
    unsigned int GetPeriod() const final { return period; }
    unsigned int GetPriority() const final { return priority; }
    const BasicString& GetName() const final { return name; }
    unsigned int GetCPUAffinity() const final { return cpuAffinity; }
    void SetPeriod(unsigned int microseconds) final { period = microseconds; }
    void SetPriority(unsigned int newPriority) final;
    void SetName(const BasicString& newName) final;
    void SetCPUAffinity(unsigned int mask) final;

    /// Sets what is called, and with what; a null handler calls nothing. Throws VeException while the timer is started.
    void SetHandler(void* argument, void (*newHandler)(void*));

protected:
    explicit TimerServiceBase(unsigned int microseconds) : period(microseconds) {}

private:
    unsigned int period;
    BasicString name;
    unsigned int priority = 0;
    unsigned int cpuAffinity = 0;

protected:
    void* handlerArgument = nullptr;
    void (*handler)(void*) = nullptr;
    std::atomic<bool> isStarted{false};
};

}  // namespace Kel::System::Ve::Internal
