#include <Kel/System/Ve/Internal/Linux/ThreadService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/Core/ErrorText.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/CpuSet.h>
#include <Kel/System/Ve/Internal/Linux/SystemCall.h>

#include <sched.h>
#include <time.h>

#include <new>

namespace Kel::System::Ve::Internal {

void ThreadServiceBase::Sleep(unsigned int milliseconds) { Linux::ThreadService::Sleep(milliseconds); }

unsigned int ThreadServiceBase::GetCurrentThreadId() { return Linux::ThreadService::GetCurrentThreadId(); }

void ThreadServiceBase::SetAsynchronousCancelability(bool asynchronous) {
    Linux::ThreadService::SetAsynchronousCancelability(asynchronous);
}

}  // namespace Kel::System::Ve::Internal

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

// The step of a start that failed, and the code that its call returned.
struct ThreadService::Failure {
    const char* step;
    int code;
};

ThreadService::ThreadService(void* (*function)(void*), void* functionArgument, const BasicString& threadName,
                             unsigned int threadPriority, unsigned int affinityMask, unsigned int stackBytes)
    : ServiceObjectBase("ThreadService", ServiceType::Thread, true), ThreadServiceBase(function, functionArgument) {
    SetName(threadName);
    SetPriority(threadPriority);
    SetCpuAffinity(affinityMask);
    SetStackSize(stackBytes);
}

void ThreadService::Sleep(unsigned int milliseconds) {
    timespec remaining{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000};
    while (nanosleep(&remaining, &remaining) == -1) {
    }
}

unsigned int ThreadService::GetCurrentThreadId() { return static_cast<unsigned int>(pthread_self()); }

void ThreadService::SetAsynchronousCancelability(bool asynchronous) {
    int previous = 0;
    CheckReturnedCode(
        pthread_setcanceltype(asynchronous ? PTHREAD_CANCEL_ASYNCHRONOUS : PTHREAD_CANCEL_DEFERRED, &previous),
        "{0}: Could not change cancelability type, linux error code: {1}");
}

void ThreadService::StartThread() {
    // The new thread uses this object until it has posted, so this thread must not leave before. After that, the new
    // one may delete it.
    const CancellationDisabled disabled;
    semIsStartedPtr.reset(new (std::nothrow) SemaphoreService(0));
    if (!semIsStartedPtr) {
        Fail({"Could not allocate semIsStartedPtr", 0});
    }
    pthread_attr_t attributes;
    const int code = pthread_attr_init(&attributes);
    if (code != 0) {
        // Here the semaphore stays.
        throw VeException("{0}: {1}, linux error code: {2}", __func__, "Could not initialize thread attribute",
                          ErrorText(code));
    }
    const std::shared_ptr<SemaphoreService> posted = semIsStartedPtr;
    bool named = false;
    hasNamedItself = &named;
    try {
        const Failure failure = Create(attributes);
        if (failure.code != 0) {
            Fail(failure);
        }
        WaitForPost(*posted);
    } catch (...) {
        pthread_attr_destroy(&attributes);
        throw;
    }
    const int destroyCode = pthread_attr_destroy(&attributes);
    if (!named) {
        // It has ended already; what is left of it goes, too.
        thread.Join();
        Fail({"", destroyCode});
    }
    if (destroyCode != 0) {
        Fail({"Could not destroy thread attribute", destroyCode});
    }
}

void ThreadService::WaitForPost(SemaphoreService& posted) {
    try {
        posted.WaitThroughSignals();
    } catch (...) {
        // Whoever starts anew would take away what the thread still posts to.
        while (!posted.Wait(1)) {
        }
        throw;
    }
}

ThreadService::Failure ThreadService::Create(pthread_attr_t& attributes) {
    sched_param parameters;
    int code = pthread_attr_getschedparam(&attributes, &parameters);
    if (code != 0) {
        return {"Could not get scheduling parameters", code};
    }
    parameters.sched_priority = static_cast<int>(GetPriority());
    code = pthread_attr_setschedpolicy(&attributes, GetPriority() != 0 ? SCHED_FIFO : SCHED_OTHER);
    if (code != 0) {
        return {"Could not set scheduling policy", code};
    }
    code = pthread_attr_setschedparam(&attributes, &parameters);
    if (code != 0) {
        return {"Could not set scheduling parameters", code};
    }
    code = pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
    if (code != 0) {
        return {"Could not set schedinheritance", code};
    }
    if (GetStackSize() != 0) {
        code = pthread_attr_setstacksize(&attributes, GetStackSize());
        if (code != 0) {
            return {"Could not set stacksize", code};
        }
    }
    if (GetCpuAffinity() != 0) {
        const cpu_set_t processors = CpuSetOf(GetCpuAffinity());
        code = pthread_attr_setaffinity_np(&attributes, sizeof processors, &processors);
        if (code != 0) {
            return {"Could not set cpu affinity", code};
        }
    }
    return {"Could not create thread", thread.Create(attributes, &RunInternal, this)};
}

void ThreadService::Fail(const Failure& failure) {
    semIsStartedPtr.reset();
    throw VeException("{0}: {1}, linux error code: {2}", "StartThread", failure.step, ErrorText(failure.code));
}

bool ThreadService::TellOfTheStart() {
    // The object and its semaphore are there until the post, and perhaps no longer. Until then the thread cannot be
    // cancelled.
    const CancellationDisabled disabled;
    const bool named = GetName().empty() || pthread_setname_np(pthread_self(), GetName().c_str()) == 0;
    *hasNamedItself = named;
    if (named) {
        isStarted = true;
    }
    semIsStartedPtr->Post();
    return named;
}

// Has nothing to unwind: a thread may be cancelled anywhere in here, and the tables tell that of calls only.
void* ThreadService::RunInternal(void* self) {
    auto& service = *static_cast<ThreadService*>(self);
    void* (*const function)(void*) = service.threadFunction;
    void* const functionArgument = service.argument;
    return service.TellOfTheStart() ? function(functionArgument) : nullptr;
}

void ThreadService::ChangeName(const BasicString& newName) {
    CheckReturnedCode(thread.SetName(newName.c_str()), "{0}: Could not change threadname, linux error code: {1}");
}

void ThreadService::ChangePriority(unsigned int newPriority) {
    CheckReturnedCode(thread.SetPriority(newPriority), "{0}: Could not change priority, linux error code: {1}");
}

void ThreadService::ChangeCpuAffinity(unsigned int mask) {
    // Unlike at the start, where 0 sets no affinity.
    const unsigned int processors0To9 = 0x3FF;
    CheckReturnedCode(thread.SetAffinity(mask != 0 ? mask : processors0To9),
                      "{0}: Could not change cpu affinity, linux error code: {1}");
}

void ThreadService::Join() {
    CheckReturnedCode(thread.Join(), "{0}: Joining Thread did not succeed, linux error code: {1}");
}

void ThreadService::Cancel() {
    CheckReturnedCode(thread.Cancel(), "{0}: Canceling Thread did not succeed, linux error code: {1}");
}

bool ThreadService::Joinable() const { return thread.Joinable(); }

}  // namespace Kel::System::Ve::Internal::Linux
