#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

#include <list>

namespace Kel::System::Ve {

/// Controls the tracing sessions of the local LTTng session daemon. Sessions are known by their names, which are
/// compared whole, case included. Every operation asks the daemon; the object keeps nothing. What fails throws
/// VeException; without a daemon everything does but `IsSessionDaemonAlive`. All operations may be called from any
/// thread; one asks at a time, whatever the number of objects. A program that calls the control library itself sees to
/// it that no operation is in progress. All wait for the daemon's answer; none is a cancellation point. The control
/// library writes what goes wrong with the connection to standard error.
class KEL_API ITraceControllerService : public virtual IServiceObject {
public:
    /// Returns whether there is a daemon that this user can reach.
    virtual bool IsSessionDaemonAlive() const = 0;

    /// Makes the session of that name as it was saved in `inputUrl`, the path of a file or folder. Returns true.
    virtual bool LoadSessionConfiguration(const BasicString& sessionName, const BasicString& inputUrl) = 0;

    /// Returns the names of all sessions.
    virtual std::list<BasicString> ListSessions() = 0;

    /// Starts the session. Returns true; false when the daemon has reported a success of another kind.
    virtual bool StartSession(const BasicString& sessionName) = 0;
    /// Stops the session, and waits until its data is there. The same result.
    virtual bool StopSession(const BasicString& sessionName) = 0;

    /// Removes the session; what it has written stays. The same result.
    virtual bool DestroySession(const BasicString& sessionName) = 0;

    /// Returns whether the session keeps its data in memory until a snapshot is asked for.
    virtual bool IsSessionInSnapshotMode(const BasicString& sessionName) = 0;

    /// Returns whether the session is started.
    virtual bool IsSessionEnabled(const BasicString& sessionName) = 0;

    /// Writes a snapshot to the session's output. The same result as that of StartSession. Throws also when the session
    /// is not in snapshot mode.
    virtual bool RecordSessionSnapshot(const BasicString& sessionName) = 0;

    /// Returns where the session writes: its path; of a session in snapshot mode, the control URLs of its outputs.
    virtual std::list<BasicString> ListSessionOutputs(const BasicString& sessionName) = 0;
};

}  // namespace Kel::System::Ve
