#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/Linux/PosixMutex.h>

#include <pthread.h>

#include <memory>

namespace Kel::System::Ve::Internal::Linux {

/// One POSIX thread, as threads and timers need it. The C library crashes, or acts on a foreign thread, when it is
/// given the handle of a thread that was never created, has been joined or, in some calls, has just ended: this class
/// never does that. Operations return 0 or the number of an error: ESRCH when the thread has not been created, or has
/// been joined or detached. They may be called from any thread, the thread itself included. Always owned by
/// `shared_ptr`s, of which the thread holds one until it ends.
class KEL_API PosixThread : public std::enable_shared_from_this<PosixThread> {
public:
    /// Creates no thread yet. Throws VeException when its lock cannot be made.
    PosixThread();

    /// Detaches the thread if it has not been joined.
    ~PosixThread();

    PosixThread(const PosixThread&) = delete;
    PosixThread& operator=(const PosixThread&) = delete;

    /// Creates the thread, which runs `function(argument)` (pthread_create). Called once.
    int Create(const pthread_attr_t& attributes, void* (*function)(void*), void* argument);

    /// Waits until the thread has ended, and joins it (pthread_join). Of several joins at the same time one succeeds,
    /// once the thread has ended, and the others fail then. EDEADLK when called by the thread itself. A cancellation
    /// point.
    int Join();

    /// Leaves the thread to itself (pthread_detach): nobody waits for it any more, and those who do fail with ESRCH.
    void Detach() noexcept;

    /// Requests the thread's cancellation (pthread_cancel). Does nothing when it has ended but has not been joined.
    int Cancel();

    /// @{
    /// These fail with ESRCH as soon as the function has returned.
    int SetName(const char* name);
    /// 0 is normal scheduling, anything else a real-time priority.
    int SetPriority(unsigned int priority);
    /// Bit n of the mask is processor n.
    int SetAffinity(unsigned int mask);
    /// @}

    /// True from the creation until the function has returned or the thread has been joined.
    bool Joinable() const;

    /// True when called by the thread itself.
    bool IsCurrent() const;

private:
    enum class State {
        /// Not created yet, or joined or detached: there is no handle.
        None,
        /// Created; the function has not returned.
        Running,
        /// The function has returned.
        Returned,
        /// The thread has been cancelled, or has ended itself, in the function.
        Cancelled,
        /// Somebody is in pthread_join, which does not take long any more.
        Joining,
    };

    static void* Run(void* self);
    static int EnsureEndKey();
    void End(State how) noexcept;
    void FinishJoin(State next) noexcept;

    template <typename Call>
    int CallIfRunning(Call call) const;

    // Guards all that follows.
    mutable PosixMutex lock;
    // Notified when the state has changed.
    pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
    State state = State::None;
    pthread_t handle{};

    // These are the thread's, from its creation on.
    std::shared_ptr<PosixThread> self;
    void* (*function)(void*) = nullptr;
    void* argument = nullptr;
};

}  // namespace Kel::System::Ve::Internal::Linux
