#include "FailingCall.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <lttng/lttng.h>
#include <mqueue.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <thread>
#include <utility>

namespace {

thread_local FailingCall* armedCall = nullptr;
std::atomic<FailingCall*> armedCallOfAnyThread{nullptr};
std::atomic<long> wallClockJump{0};
thread_local std::optional<timespec> stoppedClock;
thread_local int interceptedCalls = 0;
std::atomic<long> liveAllocations{0};

std::atomic<bool> recordsDeadlines{false};
std::atomic<std::size_t> recordedDeadlines{0};
std::array<std::atomic<long long>, 64> deadlines;

const timespec* Record(const timespec* deadline) {
    if (recordsDeadlines && recordedDeadlines < deadlines.size()) {
        deadlines[recordedDeadlines] = deadline->tv_sec * 1000000000LL + deadline->tv_nsec;
        ++recordedDeadlines;
    }
    return deadline;
}

int Adjust(clockid_t clock, timespec* time, int result) {
    if (stoppedClock) {
        *time = *stoppedClock;
    } else if (clock == CLOCK_REALTIME && result == 0) {
        time->tv_sec += wallClockJump;
    }
    return result;
}

// The function that would have been called. Not a static with an initializer: its guard is another call that the thread
// sanitizer intercepts.
template <typename Function>
Function Next(std::atomic<Function>& found, const char* name) {
    if (found == nullptr) {
        found = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
    }
    return found;
}

// One call as the watcher sees it, if there is one.
class WatchedCall {
public:
    explicit WatchedCall(const char* function, void* argument = nullptr) {
        CallWatcher* const watcher = CallWatcher::installed;
        if (interceptedCalls++ == 0 && watcher != nullptr) {
            verdict = watcher->Judge(function, argument, result);
            errorNumber = errno;
        }
    }
    ~WatchedCall() { --interceptedCalls; }
    WatchedCall(const WatchedCall&) = delete;
    WatchedCall& operator=(const WatchedCall&) = delete;

    bool IsReplaced() const { return verdict == CallWatcher::Verdict::Replaced; }

    /// The result for the caller of a call that came to this.
    template <typename Result>
    Result ResultOf(Result real) const {
        if (verdict == CallWatcher::Verdict::GoesThrough) {
            return real;
        }
        errno = errorNumber;
        // NOLINTNEXTLINE(performance-no-int-to-ptr): a result to return, whatever its type.
        return (Result)result;
    }

private:
    CallWatcher::Verdict verdict = CallWatcher::Verdict::GoesThrough;
    std::intptr_t result = 0;
    int errorNumber = 0;
};

// A call that does not come back to count down, if it succeeds, in a child that has this thread's memory.
template <typename Call>
int PerhapsLast(Call call) {
    const int calls = std::exchange(interceptedCalls, 0);
    const int result = call();
    interceptedCalls = calls;
    return result;
}

// A backtrace from `caller` outwards, without the frames of those that intercept it: we, and sanitizers.
int BacktraceFrom(const void* caller, int (*next)(void**, int), void** addresses, int size) {
    // The lowest bit of a return address on ARM tells the instruction set.
    const auto isCaller = [caller](const void* address) {
        return (reinterpret_cast<std::uintptr_t>(address) | 1) == (reinterpret_cast<std::uintptr_t>(caller) | 1);
    };
    std::array<void*, 80> all;
    const auto last = all.begin() + next(all.data(), static_cast<int>(all.size()));
    const auto first = std::find_if(all.begin(), last, isCaller);
    const auto count = std::min<std::ptrdiff_t>(last - first, size);
    std::copy_n(first, count, addresses);
    return static_cast<int>(count);
}

}  // namespace

FailingCall::FailingCall(const char* functionName, std::intptr_t callResult, int callErrno, int callsToSkip)
    : function(functionName), result(callResult), errnoAfter(callErrno), skip(callsToSkip) {
    armedCall = this;
}

FailingCall::FailingCall(const char* functionName, std::function<void()> callHook, int callsToSkip)
    : function(functionName), result(0), errnoAfter(0), skip(callsToSkip), hook(std::move(callHook)) {
    armedCall = this;
}

FailingCall::FailingCall(const char* functionName, std::intptr_t callResult, std::function<void(void*)> callReply,
                         int callsToSkip)
    : function(functionName), result(callResult), errnoAfter(0), skip(callsToSkip), reply(std::move(callReply)) {
    armedCall = this;
}

void FailingCall::InAnyThread() {
    armedCall = nullptr;
    armedCallOfAnyThread = this;
}

FailingCall::~FailingCall() {
    armedCall = nullptr;
    armedCallOfAnyThread = nullptr;
    EXPECT_TRUE(happened) << function << " was not called";
}

bool FailingCall::HappensIn(const std::function<void()>& operation, const char* functionName) {
    bool happens = false;
    FailingCall call(functionName, [&] { happens = true; });
    operation();
    // It need not have been made.
    call.happened = true;
    return happens;
}

bool FailingCall::Intercepts(const char* functionName, std::intptr_t& callResult, void* argument) {
    const auto isMeant = [functionName](const FailingCall* call) {
        return call != nullptr && std::strcmp(call->function, functionName) == 0;
    };
    FailingCall* call = armedCall;
    if (isMeant(call)) {
        if (call->skip-- > 0) {
            return false;
        }
        armedCall = nullptr;
    } else {
        call = armedCallOfAnyThread;
        if (!isMeant(call) || !armedCallOfAnyThread.compare_exchange_strong(call, nullptr)) {
            return false;
        }
    }
    call->happened = true;
    if (call->hook) {
        call->hook();
        return false;
    }
    if (call->reply) {
        call->reply(argument);
    }
    callResult = call->result;
    errno = call->errnoAfter;
    return true;
}

std::atomic<CallWatcher*> CallWatcher::installed{nullptr};

void CallWatcher::IgnoreThisThread() { ++interceptedCalls; }

long LiveAllocations() { return liveAllocations; }

StoppedClock::StoppedClock(timespec reading) { stoppedClock = reading; }

StoppedClock::~StoppedClock() { stoppedClock.reset(); }

WallClockJump::WallClockJump(long seconds) { wallClockJump = seconds; }

WallClockJump::~WallClockJump() { wallClockJump = 0; }

RecordedDeadlines::RecordedDeadlines() {
    recordedDeadlines = 0;
    recordsDeadlines = true;
}

RecordedDeadlines::~RecordedDeadlines() { recordsDeadlines = false; }

std::vector<long long> RecordedDeadlines::Get(std::size_t count) const {
    while (recordedDeadlines < count) {
        std::this_thread::yield();
    }
    return {deadlines.begin(), deadlines.begin() + static_cast<std::ptrdiff_t>(count)};
}

// The library is a shared object, so these definitions in the executable come before those of the C library. The label
// gives them the function's name without clashing with its declaration in the system's headers.
#define INTERCEPT(Result, function, parameters, ...) INTERCEPT_WITH(nullptr, Result, function, parameters, __VA_ARGS__)
// The same, with the argument that a reply is to fill in.
#define INTERCEPT_WITH(argument, Result, function, parameters, ...)                  \
    extern "C" Result Intercept_##function parameters __asm__(#function);            \
    extern "C" Result Intercept_##function parameters {                              \
        static std::atomic<Result(*) parameters> found{nullptr};                     \
        const auto next = Next(found, #function);                                    \
        std::intptr_t result;                                                        \
        if (FailingCall::Intercepts(#function, result, argument)) {                  \
            return (Result)result;                                                   \
        }                                                                            \
        const WatchedCall call(#function, argument);                                 \
        return call.ResultOf<Result>(call.IsReplaced() ? (Result)0 : (__VA_ARGS__)); \
    }

// NOLINTBEGIN(performance-no-int-to-ptr): a result to return, whatever its type.
// clang-format off
INTERCEPT(int, pthread_mutexattr_init, (pthread_mutexattr_t* a), next(a))
INTERCEPT(int, pthread_mutexattr_settype, (pthread_mutexattr_t* a, int b), next(a, b))
INTERCEPT(int, pthread_mutexattr_setpshared, (pthread_mutexattr_t* a, int b), next(a, b))
INTERCEPT(int, pthread_mutexattr_setprotocol, (pthread_mutexattr_t* a, int b), next(a, b))
INTERCEPT(int, pthread_mutexattr_gettype, (const pthread_mutexattr_t* a, int* b), next(a, b))
INTERCEPT(int, pthread_mutexattr_destroy, (pthread_mutexattr_t* a), next(a))
INTERCEPT(int, pthread_mutex_init, (pthread_mutex_t* a, const pthread_mutexattr_t* b), next(a, b))
INTERCEPT(int, pthread_mutex_lock, (pthread_mutex_t* a), next(a))
INTERCEPT(int, pthread_mutex_trylock, (pthread_mutex_t* a), next(a))
INTERCEPT(int, pthread_mutex_timedlock, (pthread_mutex_t* a, const timespec* b), next(a, b))
INTERCEPT(int, pthread_mutex_unlock, (pthread_mutex_t* a), next(a))
INTERCEPT(int, pthread_mutex_destroy, (pthread_mutex_t* a), next(a))
INTERCEPT(int, pthread_rwlock_init, (pthread_rwlock_t* a, const pthread_rwlockattr_t* b), next(a, b))
INTERCEPT(int, pthread_rwlock_rdlock, (pthread_rwlock_t* a), next(a))
INTERCEPT(int, pthread_rwlock_wrlock, (pthread_rwlock_t* a), next(a))
INTERCEPT(int, clock_gettime, (clockid_t a, timespec* b), Adjust(a, b, next(a, b)))
INTERCEPT(int, pthread_rwlock_tryrdlock, (pthread_rwlock_t* a), next(a))
INTERCEPT(int, pthread_rwlock_trywrlock, (pthread_rwlock_t* a), next(a))
INTERCEPT(int, pthread_rwlock_timedrdlock, (pthread_rwlock_t* a, const timespec* b), next(a, b))
INTERCEPT(int, pthread_rwlock_timedwrlock, (pthread_rwlock_t* a, const timespec* b), next(a, b))
INTERCEPT(int, pthread_rwlock_unlock, (pthread_rwlock_t* a), next(a))
INTERCEPT(int, pthread_rwlock_destroy, (pthread_rwlock_t* a), next(a))
INTERCEPT(int, pthread_condattr_init, (pthread_condattr_t* a), next(a))
INTERCEPT(int, pthread_condattr_setclock, (pthread_condattr_t* a, clockid_t b), next(a, b))
INTERCEPT(int, pthread_condattr_setpshared, (pthread_condattr_t* a, int b), next(a, b))
INTERCEPT(int, pthread_condattr_destroy, (pthread_condattr_t* a), next(a))
INTERCEPT(int, pthread_cond_init, (pthread_cond_t* a, const pthread_condattr_t* b), next(a, b))
INTERCEPT(int, pthread_cond_signal, (pthread_cond_t* a), next(a))
INTERCEPT(int, pthread_cond_broadcast, (pthread_cond_t* a), next(a))
INTERCEPT(int, pthread_cond_wait, (pthread_cond_t* a, pthread_mutex_t* b), next(a, b))
INTERCEPT(int, pthread_cond_timedwait, (pthread_cond_t* a, pthread_mutex_t* b, const timespec* c), next(a, b, Record(c)))
INTERCEPT(int, pthread_cond_destroy, (pthread_cond_t* a), next(a))
INTERCEPT(int, sem_init, (sem_t* a, int b, unsigned int c), next(a, b, c))
INTERCEPT(sem_t*, sem_open, (const char* a, int b, mode_t c, unsigned int d), next(a, b, c, d))
INTERCEPT(int, sem_close, (sem_t* a), next(a))
INTERCEPT(int, sem_unlink, (const char* a), next(a))
INTERCEPT(int, sem_destroy, (sem_t* a), next(a))
INTERCEPT(int, sem_post, (sem_t* a), next(a))
INTERCEPT(int, sem_wait, (sem_t* a), next(a))
INTERCEPT(int, sem_timedwait, (sem_t* a, const timespec* b), next(a, b))
INTERCEPT(int, sem_trywait, (sem_t* a), next(a))
INTERCEPT(int, sem_getvalue, (sem_t* a, int* b), next(a, b))
INTERCEPT(int, pthread_attr_init, (pthread_attr_t* a), next(a))
INTERCEPT(int, pthread_attr_getschedparam, (const pthread_attr_t* a, sched_param* b), next(a, b))
INTERCEPT(int, pthread_attr_setschedpolicy, (pthread_attr_t* a, int b), next(a, b))
INTERCEPT(int, pthread_attr_setschedparam, (pthread_attr_t* a, const sched_param* b), next(a, b))
INTERCEPT(int, pthread_attr_setinheritsched, (pthread_attr_t* a, int b), next(a, b))
INTERCEPT(int, pthread_attr_setstacksize, (pthread_attr_t* a, std::size_t b), next(a, b))
INTERCEPT(int, pthread_attr_setaffinity_np, (pthread_attr_t* a, std::size_t b, const cpu_set_t* c), next(a, b, c))
INTERCEPT(int, pthread_attr_destroy, (pthread_attr_t* a), next(a))
INTERCEPT(int, pthread_create, (pthread_t* a, const pthread_attr_t* b, void* (*c)(void*), void* d), next(a, b, c, d))
INTERCEPT(int, pthread_join, (pthread_t a, void** b), next(a, b))
INTERCEPT(int, pthread_cancel, (pthread_t a), next(a))
INTERCEPT(int, pthread_setcanceltype, (int a, int* b), next(a, b))
INTERCEPT(int, pthread_setname_np, (pthread_t a, const char* b), next(a, b))
INTERCEPT(int, pthread_setschedparam, (pthread_t a, int b, const sched_param* c), next(a, b, c))
INTERCEPT(int, pthread_setaffinity_np, (pthread_t a, std::size_t b, const cpu_set_t* c), next(a, b, c))
INTERCEPT(int, nanosleep, (const timespec* a, timespec* b), next(a, b))
INTERCEPT_WITH((void*)a, int, open64, (const char* a, int b, mode_t c), next(a, b, c))
INTERCEPT(int, close, (int a), next(a))
INTERCEPT_WITH(c, int, ioctl, (int a, unsigned long b, void* c), next(a, b, c))
INTERCEPT(int, socket, (int a, int b, int c), next(a, b, c))
INTERCEPT(int, getsockname, (int a, sockaddr* b, socklen_t* c), next(a, b, c))
INTERCEPT(ssize_t, recv, (int a, void* b, std::size_t c, int d), next(a, b, c, d))
INTERCEPT(int, select, (int a, fd_set* b, fd_set* c, fd_set* d, timeval* e), next(a, b, c, d, e))
INTERCEPT_WITH(a, int, poll, (pollfd* a, nfds_t b, int c), next(a, b, c))
INTERCEPT(int, shutdown, (int a, int b), next(a, b))
INTERCEPT(mqd_t, mq_open, (const char* a, int b, mode_t c, mq_attr* d), next(a, b, c, d))
INTERCEPT(int, mq_send, (mqd_t a, const char* b, std::size_t c, unsigned int d), next(a, b, c, d))
INTERCEPT(int, mq_timedsend, (mqd_t a, const char* b, std::size_t c, unsigned int d, const timespec* e), next(a, b, c, d, e))
INTERCEPT(ssize_t, mq_receive, (mqd_t a, char* b, std::size_t c, unsigned int* d), next(a, b, c, d))
INTERCEPT(ssize_t, mq_timedreceive, (mqd_t a, char* b, std::size_t c, unsigned int* d, const timespec* e), next(a, b, c, d, e))
INTERCEPT(int, mq_getattr, (mqd_t a, mq_attr* b), next(a, b))
INTERCEPT(int, mq_close, (mqd_t a), next(a))
INTERCEPT(int, mq_unlink, (const char* a), next(a))
INTERCEPT(int, shm_open, (const char* a, int b, mode_t c), next(a, b, c))
INTERCEPT(int, shm_unlink, (const char* a), next(a))
INTERCEPT(int, ftruncate64, (int a, off64_t b), next(a, b))
INTERCEPT(FILE*, fopen64, (const char* a, const char* b), next(a, b))
INTERCEPT(FILE*, fdopen, (int a, const char* b), next(a, b))
INTERCEPT(int, fileno, (FILE* a), next(a))
INTERCEPT(int, stat64, (const char* a, struct stat64* b), next(a, b))
INTERCEPT(int, fsync, (int a), next(a))
INTERCEPT(int, fseek, (FILE* a, long b, int c), next(a, b, c))
INTERCEPT(long, ftell, (FILE* a), next(a))
INTERCEPT(pid_t, waitpid, (pid_t a, int* b, int c), next(a, b, c))
INTERCEPT(int, kill, (pid_t a, int b), next(a, b))
INTERCEPT(int, dlclose, (void* a), next(a))
INTERCEPT(lttng_load_session_attr*, lttng_load_session_attr_create, (), next())
INTERCEPT(int, lttng_load_session_attr_set_session_name, (lttng_load_session_attr* a, const char* b), next(a, b))
INTERCEPT(int, lttng_load_session_attr_set_input_url, (lttng_load_session_attr* a, const char* b), next(a, b))
INTERCEPT(int, lttng_load_session, (lttng_load_session_attr* a), next(a))
INTERCEPT_WITH(a, int, lttng_list_sessions, (lttng_session** a), next(a))
INTERCEPT_WITH(b, int, lttng_snapshot_list_output, (const char* a, lttng_snapshot_output_list** b), next(a, b))
INTERCEPT(lttng_snapshot_output*, lttng_snapshot_output_list_get_next, (lttng_snapshot_output_list* a), next(a))
INTERCEPT(int, lttng_snapshot_record, (const char* a, lttng_snapshot_output* b, int c), next(a, b, c))
INTERCEPT(int, lttng_session_daemon_alive, (), next())
INTERCEPT(int, lttng_start_tracing, (const char* a), next(a))
INTERCEPT(int, lttng_stop_tracing, (const char* a), next(a))
INTERCEPT(int, lttng_destroy_session, (const char* a), next(a))
INTERCEPT(int, pthread_mutexattr_setrobust, (pthread_mutexattr_t* a, int b), next(a, b))
INTERCEPT(int, pthread_mutex_consistent, (pthread_mutex_t* a), next(a))
INTERCEPT(int, pthread_detach, (pthread_t a), next(a))
INTERCEPT(int, prctl, (int a, unsigned long b, unsigned long c, unsigned long d, unsigned long e), next(a, b, c, d, e))
INTERCEPT(int, bind, (int a, const sockaddr* b, socklen_t c), next(a, b, c))
INTERCEPT(int, connect, (int a, const sockaddr* b, socklen_t c), next(a, b, c))
INTERCEPT(int, listen, (int a, int b), next(a, b))
INTERCEPT(int, accept4, (int a, sockaddr* b, socklen_t* c, int d), next(a, b, c, d))
INTERCEPT(ssize_t, send, (int a, const void* b, std::size_t c, int d), next(a, b, c, d))
INTERCEPT(ssize_t, sendto, (int a, const void* b, std::size_t c, int d, const sockaddr* e, socklen_t f), next(a, b, c, d, e, f))
INTERCEPT(ssize_t, recvfrom, (int a, void* b, std::size_t c, int d, sockaddr* e, socklen_t* f), next(a, b, c, d, e, f))
INTERCEPT(int, setsockopt, (int a, int b, int c, const void* d, socklen_t e), next(a, b, c, d, e))
INTERCEPT(int, getsockopt, (int a, int b, int c, void* d, socklen_t* e), next(a, b, c, d, e))
INTERCEPT(int, fcntl64, (int a, int b, long c), next(a, b, c))
INTERCEPT(int, unlink, (const char* a), next(a))
INTERCEPT(void*, mmap64, (void* a, std::size_t b, int c, int d, int e, off64_t f), next(a, b, c, d, e, f))
INTERCEPT(std::size_t, fread, (void* a, std::size_t b, std::size_t c, FILE* d), next(a, b, c, d))
INTERCEPT(std::size_t, fwrite, (const void* a, std::size_t b, std::size_t c, FILE* d), next(a, b, c, d))
INTERCEPT(int, fflush, (FILE* a), next(a))
INTERCEPT(int, fclose, (FILE* a), next(a))
INTERCEPT(int, remove, (const char* a), next(a))
INTERCEPT(pid_t, setsid, (), next())
INTERCEPT(int, chdir, (const char* a), next(a))
INTERCEPT(int, execvp, (const char* a, char* const* b), PerhapsLast([=] { return next(a, b); }))
INTERCEPT(int, waitid, (idtype_t a, id_t b, siginfo_t* c, int d), next(a, b, c, d))
INTERCEPT(int, sched_setscheduler, (pid_t a, int b, const sched_param* c), next(a, b, c))
INTERCEPT(int, sched_setaffinity, (pid_t a, std::size_t b, const cpu_set_t* c), next(a, b, c))
INTERCEPT(ssize_t, readlink, (const char* a, char* b, std::size_t c), next(a, b, c))
INTERCEPT(void*, dlopen, (const char* a, int b), next(a, b))
INTERCEPT(int, dlinfo, (void* a, int b, void* c), next(a, b, c))
INTERCEPT(int, mlock, (const void* a, std::size_t b), next(a, b))
INTERCEPT(int, munlock, (const void* a, std::size_t b), next(a, b))
INTERCEPT(int, sigaction, (int a, const struct sigaction* b, struct sigaction* c), next(a, b, c))
INTERCEPT(ssize_t, write, (int a, const void* b, std::size_t c), next(a, b, c))
INTERCEPT(int, backtrace, (void** a, int b), BacktraceFrom(__builtin_return_address(0), next, a, b))
INTERCEPT(char**, backtrace_symbols, (void* const* a, int b), next(a, b))
INTERCEPT(int, dladdr, (const void* a, Dl_info* b), next(a, b))
INTERCEPT(char*, __cxa_demangle, (const char* a, char* b, std::size_t* c, int* d), next(a, b, c, d))
// clang-format on
// NOLINTEND(performance-no-int-to-ptr)

// The child goes on with the stack of vfork's caller, so nobody may stand between the two: whoever judges has left
// before. Returns the function, null when it is not called.
extern "C" void* JudgeVfork() {
    const WatchedCall watched("vfork");
    static std::atomic<pid_t (*)()> found{nullptr};
    return watched.IsReplaced() ? nullptr : reinterpret_cast<void*>(Next(found, "vfork"));
}
__asm__(R"(
    .text
    .globl vfork
    .type vfork, %function
)"
#if defined(__x86_64__)
        R"(
vfork:
    subq $8, %rsp
    call JudgeVfork@PLT
    addq $8, %rsp
    testq %rax, %rax
    jz 1f
    jmp *%rax
1:  movl $-1, %eax
    ret
)"
#elif defined(__arm__)
        R"(
    .syntax unified
    .thumb
    .thumb_func
vfork:
    push {r3, lr}
    bl JudgeVfork(PLT)
    pop {r3, lr}
    cmp r0, #0
    it ne
    bxne r0
    mvn r0, #0
    bx lr
)"
#endif
        R"(
    .size vfork, . - vfork
)");

// NOLINTNEXTLINE(misc-new-delete-overloads): of the other forms, the library's own end here.
void* operator new(std::size_t size) {
    std::intptr_t result = 0;
    CallWatcher* const watcher = interceptedCalls == 0 ? CallWatcher::installed.load() : nullptr;
    if (watcher != nullptr && watcher->Judge("operator new", nullptr, result) != CallWatcher::Verdict::GoesThrough) {
        throw std::bad_alloc();
    }
    static std::atomic<void* (*)(std::size_t)> found{nullptr};
    void* const memory = Next(found, sizeof(size) == 8 ? "_Znwm" : "_Znwj")(size);
    ++liveAllocations;
    return memory;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void operator delete(void* memory) noexcept {
    liveAllocations -= memory != nullptr ? 1 : 0;
    static std::atomic<void (*)(void*)> found{nullptr};
    Next(found, "_ZdlPv")(memory);
}

void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

void operator delete(void* memory, const std::nothrow_t&) noexcept { operator delete(memory); }
