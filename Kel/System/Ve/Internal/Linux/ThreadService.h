#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
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
    struct Failure;

    static void* RunInternal(void* self);
    // What the thread does before its function. Returns false when it could not name itself, and then has to end.
    bool TellOfTheStart();

    Failure Create(pthread_attr_t& attributes);
    // Returns or throws once the new thread has posted.
    static void WaitForPost(SemaphoreService& posted);
    [[noreturn]] void Fail(const Failure& failure);

    // Posted once by each new thread.
    std::shared_ptr<SemaphoreService> semIsStartedPtr;
    // Where the thread that is being started says whether it has named itself, before it posts.
    bool* hasNamedItself = nullptr;
    // Last: at the end of the object the thread ends before anything that it may use.
    PosixThread thread;
};

}  // namespace Kel::System::Ve::Internal::Linux
