#include <Kel/System/Ve/Internal/Linux/PosixThread.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/System/Ve/Internal/Linux/CpuSet.h>
#include <Kel/System/Ve/Internal/MutexGuard.h>

#include <limits.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <utility>

namespace Kel::System::Ve::Internal::Linux {

// The states, and all that changes them:
//
//   Create      None -> Running
//   End         Running -> Returned, when the function returns
//               Running -> Cancelled, when the thread ends in any other way
//   Join        Returned, Cancelled -> Joining -> None; back again when pthread_join fails
//   Detach      Running, Returned, Cancelled -> None

namespace {

constexpr pthread_key_t noKey = PTHREAD_KEYS_MAX;

// The thread-specific data whose destructor tells of the end of a thread that is cancelled: unwinding the stack is not
// enough on 32-bit ARM, where it breaks off in some calls of the C library, and an object of storage class thread_local
// would wait for the loader while that loads a library. Made by the first start for which there is a key.
std::atomic<pthread_key_t> endKey{noKey};

}  // namespace

PosixThread::PosixThread() { lock.Init(false, PTHREAD_PROCESS_PRIVATE); }

PosixThread::~PosixThread() {
    Detach();
    lock.Destroy();
}

int PosixThread::EnsureEndKey() {
    if (endKey != noKey) {
        return 0;
    }
    pthread_key_t made{};
    const int code =
        pthread_key_create(&made, [](void* ending) { static_cast<PosixThread*>(ending)->End(State::Cancelled); });
    if (code != 0) {
        return code;
    }
    pthread_key_t expected = noKey;
    if (!endKey.compare_exchange_strong(expected, made)) {
        // Another start has been faster.
        pthread_key_delete(made);
    }
    return 0;
}

int PosixThread::Create(const pthread_attr_t& attributes, void* (*threadFunction)(void*), void* threadArgument) {
    int code = EnsureEndKey();
    if (code != 0) {
        return code;
    }
    const MutexGuard guard(lock);
    self = shared_from_this();
    function = threadFunction;
    argument = threadArgument;
    code = pthread_create(&handle, &attributes, &Run, this);
    if (code != 0) {
        self.reset();
        return code;
    }
    state = State::Running;
    return 0;
}

// A thread with asynchronous cancelability may be cancelled at any instruction in here, until pthread_setcanceltype has
// returned. So this function has nothing to unwind, and what has is not inlined: in a function that has, the exception
// tables know of calls only, and unwinding from anywhere else ends the process.
void* PosixThread::Run(void* thread) {
    auto* const current = static_cast<PosixThread*>(thread);
    if (pthread_setspecific(endKey, current) != 0) {
        // Nobody would be told of a cancellation.
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }
    void* const result = current->function(current->argument);
    // Before the state is disabled: glibc 2.36 looks only at the type when a request that is on its way arrives.
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    current->End(State::Returned);
    return result;
}

[[gnu::noinline]] void PosixThread::End(State how) noexcept {
    // For good: what is left of the thread lets no cancellation through.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    // It ends once.
    pthread_setspecific(endKey, nullptr);
    const std::shared_ptr<PosixThread> keptUntilTheReturn = std::move(self);
    {
        const MutexGuard guard(lock);
        // Unless it has been detached.
        if (state == State::Running) {
            state = how;
        }
    }
    // Not under the lock, which those who wake up take.
    pthread_cond_broadcast(&changed);
}

int PosixThread::Join() {
    State ended{};
    {
        const MutexGuard guard(lock);
        if (state != State::None && pthread_equal(handle, pthread_self()) != 0) {
            return EDEADLK;
        }
        // pthread_join is called when the thread has as good as ended: a caller that is cancelled in there would not
        // even unwind on 32-bit ARM. Cancelled here, it leaves everything as it was.
        while (state == State::Running || state == State::Joining) {
            pthread_cond_wait(&changed, lock.GetNativeHandle());
        }
        if (state == State::None) {
            return ESRCH;
        }
        ended = std::exchange(state, State::Joining);
    }
    const CancellationDisabled disabled;
    const int code = pthread_join(handle, nullptr);
    FinishJoin(code == 0 ? State::None : ended);
    return code;
}

// Lets nothing out: those who join at the same time would wait for ever.
void PosixThread::FinishJoin(State next) noexcept {
    const MutexGuard guard(lock);
    state = next;
    pthread_cond_broadcast(&changed);
}

// Lets nothing out: a start that detaches the thread before has made another that it must wait for.
void PosixThread::Detach() noexcept {
    const MutexGuard guard(lock);
    if (state == State::Running || state == State::Returned || state == State::Cancelled) {
        pthread_detach(handle);
        state = State::None;
        pthread_cond_broadcast(&changed);
    }
}

int PosixThread::Cancel() {
    const MutexGuard guard(lock);
    if (state == State::None) {
        return ESRCH;
    }
    return state == State::Running ? pthread_cancel(handle) : 0;
}

// The thread takes the lock to leave the state Running: until then its handle is good for all calls.
template <typename Call>
int PosixThread::CallIfRunning(Call call) const {
    const MutexGuard guard(lock);
    return state == State::Running ? call(handle) : ESRCH;
}

int PosixThread::SetName(const char* name) {
    return CallIfRunning([=](pthread_t thread) { return pthread_setname_np(thread, name); });
}

int PosixThread::SetPriority(unsigned int priority) {
    return CallIfRunning([=](pthread_t thread) {
        const sched_param parameters{static_cast<int>(priority)};
        return pthread_setschedparam(thread, priority != 0 ? SCHED_FIFO : SCHED_OTHER, &parameters);
    });
}

int PosixThread::SetAffinity(unsigned int mask) {
    return CallIfRunning([=](pthread_t thread) {
        const cpu_set_t processors = CpuSetOf(mask);
        return pthread_setaffinity_np(thread, sizeof processors, &processors);
    });
}

bool PosixThread::Joinable() const {
    const MutexGuard guard(lock);
    return state == State::Running || state == State::Cancelled;
}

bool PosixThread::IsCurrent() const {
    const MutexGuard guard(lock);
    return state != State::None && pthread_equal(handle, pthread_self()) != 0;
}

}  // namespace Kel::System::Ve::Internal::Linux
