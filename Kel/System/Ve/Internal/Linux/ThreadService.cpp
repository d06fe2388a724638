#include <Kel/System/Ve/Internal/Linux/ThreadService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/Core/ErrorText.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/CpuSet.h>
#include <Kel/System/Ve/Internal/Linux/SystemCall.h>
#include <Kel/System/Ve/Internal/MutexGuard.h>

#include <sched.h>
#include <time.h>

#include <memory>
#include <new>
#include <optional>

namespace Kel::System::Ve::Internal {

void ThreadServiceBase::Sleep(unsigned int milliseconds) { Linux::ThreadService::Sleep(milliseconds); }

unsigned int ThreadServiceBase::GetCurrentThreadId() { return Linux::ThreadService::GetCurrentThreadId(); }

void ThreadServiceBase::SetAsynchronousCancelability(bool asynchronous) {
    Linux::ThreadService::SetAsynchronousCancelability(asynchronous);
}

}  // namespace Kel::System::Ve::Internal

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

// What a start shares with its thread until that has posted: after that the thread may have deleted the service.
struct ThreadService::Launch {
    ThreadService& service;
    bool hasNamedItself = false;
};

namespace {

// A step of a start that has failed.
struct FailedStep {
    const char* label;
    // What the call returned.
    int code;
};

// Makes the attributes those of the settings; returns the step that has failed, if one has.
std::optional<FailedStep> SetAttributes(pthread_attr_t& attributes, const IThreadService& settings) {
    sched_param parameters{};
    int code = pthread_attr_getschedparam(&attributes, &parameters);
    if (code != 0) {
        return FailedStep{"Could not get scheduling parameters", code};
    }
    parameters.sched_priority = static_cast<int>(settings.GetPriority());
    code = pthread_attr_setschedpolicy(&attributes, settings.GetPriority() != 0 ? SCHED_FIFO : SCHED_OTHER);
    if (code != 0) {
        return FailedStep{"Could not set scheduling policy", code};
    }
    code = pthread_attr_setschedparam(&attributes, &parameters);
    if (code != 0) {
        return FailedStep{"Could not set scheduling parameters", code};
    }
    code = pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
    if (code != 0) {
        return FailedStep{"Could not set schedinheritance", code};
    }
    if (settings.GetStackSize() != 0) {
        code = pthread_attr_setstacksize(&attributes, settings.GetStackSize());
        if (code != 0) {
            return FailedStep{"Could not set stacksize", code};
        }
    }
    if (settings.GetCpuAffinity() != 0) {
        const cpu_set_t processors = CpuSetOf(settings.GetCpuAffinity());
        code = pthread_attr_setaffinity_np(&attributes, sizeof processors, &processors);
        if (code != 0) {
            return FailedStep{"Could not set cpu affinity", code};
        }
    }
    return std::nullopt;
}

[[noreturn]] void ThrowFailedStep(const FailedStep& step) {
    throw VeException("{0}: {1}, linux error code: {2}", "StartThread", step.label, ErrorText(step.code));
}

}  // namespace

ThreadService::ThreadService(void* (*function)(void*), void* functionArgument, const BasicString& threadName,
                             unsigned int threadPriority, unsigned int affinityMask, unsigned int stackBytes)
    : ServiceObjectBase("ThreadService", ServiceType::Thread, true), ThreadServiceBase(function, functionArgument) {
    SetName(threadName);
    SetPriority(threadPriority);
    SetCpuAffinity(affinityMask);
    SetStackSize(stackBytes);
    threadLock.Init(false, PTHREAD_PROCESS_PRIVATE);
}

ThreadService::~ThreadService() {
    const CancellationDisabled disabled;
    // By its lock: a thread that deletes its own object may be faster than the start that is about to release that.
    const std::shared_ptr<PosixThread> last = GetThread();
    // And it cannot wait for its own end.
    if (last->IsCurrent()) {
        last->Detach();
    } else {
        last->Join();
    }
    threadLock.Destroy();
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
    // The new thread uses this object and the launch until it has posted, so this thread must not leave before.
    const CancellationDisabled disabled;
    // The new thread may delete this object once it has posted, but not what is waited for.
    const std::shared_ptr<SemaphoreService> started(new (std::nothrow) SemaphoreService(0));
    semIsStartedPtr = started;
    if (started == nullptr) {
        ThrowFailedStep({"Could not allocate semIsStartedPtr", 0});
    }
    pthread_attr_t attributes;
    const int initCode = pthread_attr_init(&attributes);
    if (initCode != 0) {
        // Here the semaphore stays.
        ThrowFailedStep({"Could not initialize thread attribute", initCode});
    }
    std::unique_ptr<pthread_attr_t, int (*)(pthread_attr_t*)> attributesOwner(&attributes, &pthread_attr_destroy);

    Launch launch{*this};
    std::optional<FailedStep> failed = SetAttributes(attributes, *this);
    if (!failed) {
        const int code = CreateThread(attributes, launch);
        if (code != 0) {
            failed = FailedStep{"Could not create thread", code};
        }
    }
    if (!failed) {
        started->WaitRetryingOnEintr();
    }
    const int destroyCode = pthread_attr_destroy(attributesOwner.release());
    if (!failed && !launch.hasNamedItself) {
        // It has ended, or is about to.
        GetThread()->Join();
        failed = FailedStep{"", destroyCode};
    }
    if (!failed && destroyCode != 0) {
        failed = FailedStep{"Could not destroy thread attribute", destroyCode};
    }
    if (failed) {
        semIsStartedPtr.reset();
        ThrowFailedStep(*failed);
    }
}

int ThreadService::CreateThread(const pthread_attr_t& attributes, Launch& launch) {
    const auto created = std::make_shared<PosixThread>();
    // Held until the pointer is that of the new thread, which may use it at once.
    const MutexGuard guard(threadLock);
    const int code = created->Create(attributes, &RunInternal, &launch);
    if (code == 0) {
        thread->Detach();
        thread = created;
    }
    return code;
}

// Has nothing to unwind, as `PosixThread::Run`.
void* ThreadService::RunInternal(void* launchArgument) {
    auto& launch = *static_cast<Launch*>(launchArgument);
    void* (*const function)(void*) = launch.service.threadFunction;
    void* const functionArgument = launch.service.argument;
    return SignalStarted(launch) ? function(functionArgument) : nullptr;
}

// Returns false when the thread could not name itself; it ends then, without a call of the function.
[[gnu::noinline]] bool ThreadService::SignalStarted(Launch& launch) {
    const CancellationDisabled disabled;
    ThreadService& service = launch.service;
    const bool named = service.GetName().empty() || pthread_setname_np(pthread_self(), service.GetName().c_str()) == 0;
    launch.hasNamedItself = named;
    if (named) {
        service.isStarted = true;
    }
    service.semIsStartedPtr->Post();
    return named;
}

std::shared_ptr<PosixThread> ThreadService::GetThread() const {
    const MutexGuard guard(threadLock);
    return thread;
}

void ThreadService::ChangeName(const BasicString& newName) {
    CheckReturnedCode(GetThread()->SetName(newName.c_str()), "{0}: Could not change threadname, linux error code: {1}");
}

void ThreadService::ChangePriority(unsigned int newPriority) {
    CheckReturnedCode(GetThread()->SetPriority(newPriority), "{0}: Could not change priority, linux error code: {1}");
}

void ThreadService::ChangeCpuAffinity(unsigned int mask) {
    // Unlike at the start, where 0 sets no affinity.
    const unsigned int processors0To9 = 0x3FF;
    CheckReturnedCode(GetThread()->SetAffinity(mask != 0 ? mask : processors0To9),
                      "{0}: Could not change cpu affinity, linux error code: {1}");
}

void ThreadService::Join() {
    CheckReturnedCode(GetThread()->Join(), "{0}: Joining Thread did not succeed, linux error code: {1}");
}

void ThreadService::Cancel() {
    CheckReturnedCode(GetThread()->Cancel(), "{0}: Canceling Thread did not succeed, linux error code: {1}");
}

bool ThreadService::Joinable() const { return GetThread()->Joinable(); }

}  // namespace Kel::System::Ve::Internal::Linux
