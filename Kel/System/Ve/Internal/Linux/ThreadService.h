#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/Linux/PosixMutex.h>
#include <Kel/System/Ve/Internal/Linux/PosixThread.h>
#include <Kel/System/Ve/Internal/Linux/SemaphoreService.h>
#include <Kel/System/Ve/Internal/ThreadServiceBase.h>

#include <pthread.h>

#include <memory>

namespace Kel::System::Ve::Internal::Linux {

/// The thread service on Linux. Scheduling is never inherited from the thread that starts it.
class KEL_API ThreadService final : public ThreadServiceBase {
public:
    ThreadService(void* (*function)(void*), void* functionArgument, const BasicString& threadName,
                  unsigned int threadPriority, unsigned int affinityMask, unsigned int stackBytes);
    ~ThreadService() override;

    static void Sleep(unsigned int milliseconds);
    static unsigned int GetCurrentThreadId();
    static void SetAsynchronousCancelability(bool asynchronous);

    void StartThread() override;
    void ChangeName(const BasicString& newName) override;
    void ChangePriority(unsigned int newPriority) override;
    void ChangeCpuAffinity(unsigned int mask) override;
    void Join() override;
    void Cancel() override;
    bool Joinable() const override;

private:
    struct Launch;

    // The start routine of every thread, which is given its Launch.
    static void* RunInternal(void* launch);
    static bool SignalStarted(Launch& launch);

    int CreateThread(const pthread_attr_t& attributes, Launch& launch);
    std::shared_ptr<PosixThread> GetThread() const;

    // Posted once by each new thread.
    std::shared_ptr<SemaphoreService> semIsStartedPtr;
    // Guards the pointer: other threads may join and cancel while a start replaces it.
    mutable PosixMutex threadLock;
    // The thread created last. Never null.
    std::shared_ptr<PosixThread> thread = std::make_shared<PosixThread>();
};

}  // namespace Kel::System::Ve::Internal::Linux
