#include <Kel/System/Ve/Internal/Linux/PosixThread.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/System/Ve/Internal/Linux/CpuSet.h>
#include <Kel/System/Ve/Internal/Linux/PosixMutex.h>
#include <Kel/System/Ve/Internal/MutexGuard.h>

#include <sched.h>

#include <cerrno>

namespace Kel::System::Ve::Internal::Linux {

struct PosixThread::State {
    State() { lock.Init(false, PTHREAD_PROCESS_PRIVATE); }
    ~State() { lock.Destroy(); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    // Guards all that follows; a change of it is notified.
    PosixMutex lock;
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    // 0 when there is none that has not been joined.
    pthread_t thread{};
    // Counts the threads, for those that outlive their turn.
    unsigned int generation = 0;
    // A thread takes the lock to clear this at its end: whoever holds the lock and sees it set has a handle that is
    // good.
    bool running = false;
    bool returned = false;
    bool joining = false;
};

struct PosixThread::Launch {
    std::shared_ptr<State> state;
    unsigned int generation;
    void* (*function)(void*);
    void* argument;
};

void PosixThread::Ends(Launch* launchOfThread, bool returned) {
    // For good: a thread that permits to be cancelled anywhere would be so in what is left of it, which lets nothing
    // through, and that would end the process. The type, too: glibc 2.36 lets a cancellation through that was on its
    // way when it was disabled.
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    // It has ended now, and not once more.
    pthread_setspecific(GetEndKey().key, nullptr);
    const std::unique_ptr<Launch> launch(launchOfThread);
    State& shared = *launch->state;
    {
        const MutexGuard guard(shared.lock);
        if (shared.generation == launch->generation) {
            shared.running = false;
            shared.returned = returned;
        }
    }
    // Not under the lock, which those who wake up take.
    pthread_cond_broadcast(&shared.changed);
}

const PosixThread::EndKey& PosixThread::GetEndKey() {
    static const EndKey key = [] {
        EndKey made{};
        made.error = pthread_key_create(&made.key, [](void* launch) { Ends(static_cast<Launch*>(launch), false); });
        return made;
    }();
    return key;
}

PosixThread::PosixThread() : state(std::make_shared<State>()) {}

PosixThread::~PosixThread() {
    const CancellationDisabled disabled;
    if (!IsCurrent()) {
        Join();
        return;
    }
    const MutexGuard guard(state->lock);
    pthread_detach(state->thread);
    // For those who wait to join it.
    state->thread = 0;
    pthread_cond_broadcast(&state->changed);
}

int PosixThread::Create(const pthread_attr_t& attributes, void* (*function)(void*), void* argument) {
    if (GetEndKey().error != 0) {
        return GetEndKey().error;
    }
    auto launch = std::make_unique<Launch>(Launch{state, 0, function, argument});
    // Kept until the end, also when the thread destroys this object meanwhile.
    const std::shared_ptr<State> shared = state;
    const MutexGuard guard(shared->lock);
    launch->generation = state->generation + 1;
    pthread_t created{};
    const int code = pthread_create(&created, &attributes, &Run, launch.get());
    if (code != 0) {
        return code;
    }
    static_cast<void>(launch.release());
    if (state->thread != 0 && !state->joining) {
        pthread_detach(state->thread);
    }
    state->thread = created;
    ++state->generation;
    state->running = true;
    state->returned = false;
    state->joining = false;
    pthread_cond_broadcast(&state->changed);
    return 0;
}

void* PosixThread::Run(void* launchArgument) {
    auto* const launch = static_cast<Launch*>(launchArgument);
    // One that is cancelled meets its end by this: unwinding the stack alone is not enough on 32-bit ARM, where it
    // breaks off in some calls of the C library. Not by an object of the thread's, which would have to wait for the
    // loader while that loads a library.
    if (pthread_setspecific(GetEndKey().key, launch) != 0) {
        // Nobody would be told.
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }
    void* const result = launch->function(launch->argument);
    Ends(launch, true);
    return result;
}

int PosixThread::Join() { return Join(GetGeneration()); }

int PosixThread::Join(unsigned int generation) {
    // Kept until the end, also when the thread destroys this object meanwhile.
    const std::shared_ptr<State> shared = state;
    pthread_t thread{};
    {
        const MutexGuard guard(shared->lock);
        if (shared->thread != 0 && pthread_equal(shared->thread, pthread_self()) != 0) {
            return EDEADLK;
        }
        const auto isThere = [&] { return shared->thread != 0 && shared->generation == generation; };
        // A thread that is cancelled in here leaves everything as it was; in pthread_join, on 32-bit ARM, it would not
        // even unwind. So that is called only when the thread has as good as ended.
        while (isThere() && (shared->running || shared->joining)) {
            pthread_cond_wait(&shared->changed, shared->lock.GetNativeHandle());
        }
        if (!isThere()) {
            return ESRCH;
        }
        shared->joining = true;
        thread = shared->thread;
    }
    const CancellationDisabled disabled;
    const int code = pthread_join(thread, nullptr);
    // Nothing may keep this from being noted: those who join at the same time would wait for ever.
    [&]() noexcept {
        const MutexGuard guard(shared->lock);
        if (shared->generation == generation) {
            shared->joining = false;
            if (code == 0) {
                shared->thread = 0;
            }
            pthread_cond_broadcast(&shared->changed);
        }
    }();
    return code;
}

unsigned int PosixThread::GetGeneration() const {
    const MutexGuard guard(state->lock);
    return state->generation;
}

int PosixThread::Cancel() {
    const MutexGuard guard(state->lock);
    if (state->thread == 0) {
        return ESRCH;
    }
    return state->running ? pthread_cancel(state->thread) : 0;
}

template <typename Call>
int PosixThread::WhileRunning(Call call) const {
    const MutexGuard guard(state->lock);
    return state->running ? call(state->thread) : ESRCH;
}

int PosixThread::SetName(const char* name) {
    return WhileRunning([=](pthread_t thread) { return pthread_setname_np(thread, name); });
}

int PosixThread::SetPriority(unsigned int priority) {
    return WhileRunning([=](pthread_t thread) {
        const sched_param parameters{static_cast<int>(priority)};
        return pthread_setschedparam(thread, priority != 0 ? SCHED_FIFO : SCHED_OTHER, &parameters);
    });
}

int PosixThread::SetAffinity(unsigned int mask) {
    return WhileRunning([=](pthread_t thread) {
        const cpu_set_t processors = CpuSetOf(mask);
        return pthread_setaffinity_np(thread, sizeof processors, &processors);
    });
}

bool PosixThread::Joinable() const {
    const MutexGuard guard(state->lock);
    return state->thread != 0 && !state->returned;
}

bool PosixThread::IsCurrent() const {
    const MutexGuard guard(state->lock);
    return state->thread != 0 && pthread_equal(state->thread, pthread_self()) != 0;
}

}  // namespace Kel::System::Ve::Internal::Linux
