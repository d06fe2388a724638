#pragma once

#include <Kel/Core/Export.h>

#include <pthread.h>

#include <memory>

namespace Kel::System::Ve::Internal::Linux {

/// A POSIX thread as threads and timers need it. The C library crashes, or acts on a foreign thread, when it is given
/// the handle of a thread that was never started, has been joined or, in some calls, has just ended: this class never
/// does that. Operations return 0 or the number of an error, ESRCH when there is no thread. They may be called from any
/// thread, the thread itself included.
class KEL_API PosixThread {
public:
    /// Throws VeException when its lock cannot be made.
    PosixThread();

    /// Waits for the end of the thread, unless it has been joined. A thread that destroys its own object is detached.
    ~PosixThread();

    PosixThread(const PosixThread&) = delete;
    PosixThread& operator=(const PosixThread&) = delete;

    /// Starts a thread that runs `function(argument)` (pthread_create). One that was started before and has not been
    /// joined is left to itself. On failure everything stays as it was.
    int Create(const pthread_attr_t& attributes, void* (*function)(void*), void* argument);

    /// Waits for the end of the thread (pthread_join). Of several joins at the same time one succeeds; the others wait
    /// for it, too. EDEADLK when called by the thread itself. A cancellation point.
    int Join();

    /// The same for the thread of that generation; ESRCH when another has been started since.
    int Join(unsigned int generation);

    /// Counts the threads that have been started.
    unsigned int GetGeneration() const;

    /// Asks the thread to end (pthread_cancel). Does nothing when it has ended but has not been joined.
    int Cancel();

    // These fail with ESRCH as soon as the function has returned.
    int SetName(const char* name);
    /// 0 is normal scheduling, anything else a real-time priority.
    int SetPriority(unsigned int priority);
    /// Bit n of the mask is processor n.
    int SetAffinity(unsigned int mask);

    /// True from the start until the function has returned or the thread has been joined.
    bool Joinable() const;

    /// True when called by the thread itself.
    bool IsCurrent() const;

private:
    struct State;
    struct Launch;
    // The thread's storage that tells of its end, or why there is none.
    struct EndKey {
        int error;
        pthread_key_t key;
    };

    static void* Run(void* launch);
    static void Ends(Launch* launchOfThread, bool returned);
    static const EndKey& GetEndKey();

    template <typename Call>
    int WhileRunning(Call call) const;

    // Shared with the thread, which may outlive this object when it destroys it itself.
    const std::shared_ptr<State> state;
};

}  // namespace Kel::System::Ve::Internal::Linux
