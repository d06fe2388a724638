#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// A child process. Not thread-safe: one owner drives an object. Deleting the object neither ends the child nor waits
/// for it. Only StartBlocking is a cancellation point; the child of a thread that is cancelled in it runs on.
///
/// What starts a program takes the same three arguments. `workingDirectory` is where the program runs; empty for that
/// of the caller. `executable` is its path, if relative, from the caller's working directory; PATH is not searched.
/// `parameters` are its arguments, separated by blanks, tabs and line feeds; nothing quotes or escapes. Starting throws
/// VeException when there is no such file, or when the child that was started before has not been found to have ended
/// (as HasExited tells). What fails after that is not thrown: a child that cannot reach its directory or its program
/// ends with exit code 1, and when the system can make no process, HasExited is true.
///
/// The child inherits the scheduling, the processors, the timer slack (that of a timer's thread is 1 ns) and the
/// blocked signals of the thread that starts it, and the process's descriptors, standard streams included, but for
/// those that close on exec, as all of the library's do. A program of one's own resets the scheduling by
/// `ProcessServiceBase::SetupCurrentProcess(0)`; docs/guide.md tells the rest.
class KEL_API IProcessService : public virtual IServiceObject {
public:
    /// Starts a program (as fork and execvp; handlers of pthread_atfork are not called). Waits until it is executed,
    /// thus for the storage of the program and the directory: not for a control loop. Meanwhile signals that have a
    /// handler are blocked; those whose default action ends the process (SIGTERM, SIGINT) do so.
    virtual void Start(const BasicString& workingDirectory, const BasicString& executable,
                       const BasicString& parameters) = 0;

    /// Ends the child, if there is one, at once (kill with SIGKILL), and forgets it. Nobody waits for it then: unless
    /// the program ignores SIGCHLD, its entry in the process table stays until the program ends.
    virtual void Kill() = 0;

    /// Returns whether there is no child, or none any more (waitpid, without waiting). The call that finds a child
    /// ended with exit code 0 returns false; the next returns true.
    virtual bool HasExited() const = 0;

    /// Starts a program and waits for its end. `exitCode` is its exit code, 0 when a signal has ended it; unchanged
    /// when it could not be started or waited for. Signals do not end the wait.
    virtual void StartBlocking(const BasicString& workingDirectory, const BasicString& executable,
                               const BasicString& parameters, int& exitCode) = 0;

    /// Starts a program in a session of its own, without controlling terminal (setsid). It is still a child.
    virtual void StartDaemon(const BasicString& workingDirectory, const BasicString& executable,
                             const BasicString& parameters) = 0;
};

}  // namespace Kel::System::Ve
