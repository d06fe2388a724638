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
/// it that no operation is in progress.
class KEL_API ITraceControllerService : public virtual IServiceObject {
public:
    virtual bool IsSessionDaemonAlive() const = 0;

    /// Makes the session of that name as it was saved in `inputUrl`, the path of a file or folder. Returns true.
    virtual bool LoadSessionConfiguration(const BasicString& sessionName, const BasicString& inputUrl) = 0;

    /// Returns the names of all sessions.
    virtual std::list<BasicString> ListSessions() = 0;

    // These return true; false when the daemon has reported a success of another kind.

    virtual bool StartSession(const BasicString& sessionName) = 0;
    /// Also waits until the data is there.
    virtual bool StopSession(const BasicString& sessionName) = 0;
    virtual bool DestroySession(const BasicString& sessionName) = 0;

    virtual bool IsSessionInSnapshotMode(const BasicString& sessionName) = 0;

    /// Returns whether the session is started.
    virtual bool IsSessionEnabled(const BasicString& sessionName) = 0;

    /// Writes a snapshot to the session's output. Returns true; false as above.
    virtual bool RecordSessionSnapshot(const BasicString& sessionName) = 0;

    /// Returns where the session writes: its path; of a session in snapshot mode, the control URLs of its outputs.
    virtual std::list<BasicString> ListSessionOutputs(const BasicString& sessionName) = 0;
};

}  // namespace Kel::System::Ve
