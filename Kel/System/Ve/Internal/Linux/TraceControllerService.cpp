#include <Kel/System/Ve/Internal/Linux/TraceControllerService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <lttng/lttng.h>
#include <pthread.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

namespace {

constexpr char queryFailed[] = "Could not query session list from tracing service. Error {0} ({1})";

// While it lives, writing to a connection that the daemon has closed, which the control library does without
// MSG_NOSIGNAL, raises no signal that would end the process.
class PipeSignalBlocked {
public:
    PipeSignalBlocked() {
        sigset_t pending;
        sigpending(&pending);
        wasPending = sigismember(&pending, SIGPIPE) != 0;
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipeSignal, &previousMask);
    }
    ~PipeSignalBlocked() {
        if (!wasPending) {
            const timespec noWait{};
            sigtimedwait(&pipeSignal, nullptr, &noWait);
        }
        pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    }

    PipeSignalBlocked(const PipeSignalBlocked&) = delete;
    PipeSignalBlocked& operator=(const PipeSignalBlocked&) = delete;

private:
    sigset_t pipeSignal;
    sigset_t previousMask;
    bool wasPending;
};

// While it lives, this thread has the control library for itself. That keeps one connection to the daemon for the whole
// process: used by two threads at a time it would close descriptors that are not its own, and a thread that is
// cancelled in it would leave it half-way.
class ControlLibraryGuard {
public:
    ControlLibraryGuard() : guard(GetMutex()) {}

private:
    static std::recursive_mutex& GetMutex() {
        static std::recursive_mutex mutex;
        return mutex;
    }

    const CancellationDisabled disabled;
    const std::lock_guard<std::recursive_mutex> guard;
    const PipeSignalBlocked pipeSignalBlocked;
};

// For calls that return the negative number of an error, or what they are asked for.
int Check(int result, const char* message) {
    if (result < 0) {
        // The library has no text for some of its own errors; this is the one for numbers that it does not know.
        const char* const text = lttng_strerror(result);
        throw VeException(message, text != nullptr ? text : "Unknown error code", result);
    }
    return result;
}

// A name may fill its place to the last byte, and has no terminating null then.
template <std::size_t size>
std::string_view Text(const char (&place)[size]) {
    return {place, strnlen(place, size)};
}

// The sessions of the daemon at one moment.
class Sessions {
public:
    Sessions() : count(lttng_list_sessions(&records)) {}
    ~Sessions() { std::free(records); }

    Sessions(const Sessions&) = delete;
    Sessions& operator=(const Sessions&) = delete;

    /// The number of sessions, or that of the error.
    int GetCount() const { return count; }

    const lttng_session* begin() const { return records; }
    const lttng_session* end() const { return count > 0 ? records + count : records; }

    /// Returns the first session of that name, null when there is none.
    const lttng_session* Find(const BasicString& name) const {
        for (const lttng_session& session : *this) {
            if (Text(session.name) == name) {
                return &session;
            }
        }
        return nullptr;
    }

private:
    lttng_session* records = nullptr;
    int count;
};

const lttng_session& CheckFound(const lttng_session* session, const char* message, const BasicString& name) {
    if (session == nullptr) {
        throw VeException(message, name);
    }
    return *session;
}

void AppendSnapshotOutputs(const BasicString& sessionName, std::list<BasicString>& outputs) {
    lttng_snapshot_output_list* list = nullptr;
    if (lttng_snapshot_list_output(sessionName.c_str(), &list) < 0) {
        throw VeException("Failed to list snapshot output locations for session {0}", sessionName);
    }
    const std::unique_ptr<lttng_snapshot_output_list, decltype(&lttng_snapshot_output_list_destroy)> owner(
        list, &lttng_snapshot_output_list_destroy);
    while (const lttng_snapshot_output* const output = lttng_snapshot_output_list_get_next(list)) {
        outputs.emplace_back(lttng_snapshot_output_get_ctrl_url(output));
    }
}

}  // namespace

TraceControllerService::TraceControllerService()
    : ServiceObjectBase("TraceControllerService", ServiceType::TraceController, true) {}

bool TraceControllerService::IsSessionDaemonAlive() const {
    const ControlLibraryGuard guard;
    return lttng_session_daemon_alive() == 1;
}

bool TraceControllerService::LoadSessionConfiguration(const BasicString& sessionName, const BasicString& inputUrl) {
    const ControlLibraryGuard guard;
    const std::unique_ptr<lttng_load_session_attr, decltype(&lttng_load_session_attr_destroy)> attribute(
        lttng_load_session_attr_create(), &lttng_load_session_attr_destroy);
    if (!attribute) {
        throw VeException("Could not create attribute to load session.");
    }
    Check(lttng_load_session_attr_set_session_name(attribute.get(), sessionName.c_str()),
          "Could not set session name. Error {0} ({1}).");
    Check(lttng_load_session_attr_set_input_url(attribute.get(), inputUrl.c_str()),
          "Could not set input url. Error: {0} ({1}).");
    Check(lttng_load_session(attribute.get()), "Could not load session. Error {0} ({1}).");
    return true;
}

std::list<BasicString> TraceControllerService::ListSessions() {
    const ControlLibraryGuard guard;
    const Sessions sessions;
    Check(sessions.GetCount(), queryFailed);
    std::list<BasicString> names;
    for (const lttng_session& session : sessions) {
        names.emplace_back(std::string(Text(session.name)));
    }
    return names;
}

bool TraceControllerService::StartSession(const BasicString& sessionName) {
    const ControlLibraryGuard guard;
    return Check(lttng_start_tracing(sessionName.c_str()), "Could not start session. Error: {0} ({1}).") == 0;
}

bool TraceControllerService::StopSession(const BasicString& sessionName) {
    const ControlLibraryGuard guard;
    return Check(lttng_stop_tracing(sessionName.c_str()), "Could not stop session. Error: {0} ({1}).") == 0;
}

bool TraceControllerService::DestroySession(const BasicString& sessionName) {
    const ControlLibraryGuard guard;
    return Check(lttng_destroy_session(sessionName.c_str()), "Could not destroy session. Error: {0} ({1}).") == 0;
}

bool TraceControllerService::IsSessionInSnapshotMode(const BasicString& sessionName) {
    const ControlLibraryGuard guard;
    const Sessions sessions;
    Check(sessions.GetCount(),
          "Could not query session list from tracing service for Snapshot mode detection. Error {0} ({1})");
    return CheckFound(sessions.Find(sessionName), "Cannot check snapshot mode of Session: Session {0} does not exist",
                      sessionName)
               .snapshot_mode != 0;
}

bool TraceControllerService::IsSessionEnabled(const BasicString& sessionName) {
    const ControlLibraryGuard guard;
    // One that cannot be asked for is not there.
    const Sessions sessions;
    return CheckFound(sessions.Find(sessionName), "Cannot check enable mode of Session: Session {0} does not exist",
                      sessionName)
               .enabled != 0;
}

bool TraceControllerService::RecordSessionSnapshot(const BasicString& sessionName) {
    const ControlLibraryGuard guard;
    if (!static_cast<ITraceControllerService*>(this)->IsSessionInSnapshotMode(sessionName)) {
        throw VeException("Cannot record session snapshot: Session {0} is not in snapshot mode", sessionName);
    }
    return Check(lttng_snapshot_record(sessionName.c_str(), nullptr, 0),
                 "Failed to record snapshot. Error {0} ({1})") == 0;
}

std::list<BasicString> TraceControllerService::ListSessionOutputs(const BasicString& sessionName) {
    const ControlLibraryGuard guard;
    const Sessions sessions;
    Check(sessions.GetCount(), queryFailed);
    std::list<BasicString> outputs;
    for (const lttng_session& session : sessions) {
        if (Text(session.name) != sessionName) {
            continue;
        }
        if (session.snapshot_mode != 0) {
            AppendSnapshotOutputs(sessionName, outputs);
            return outputs;
        }
        outputs.emplace_back(std::string(Text(session.path)));
    }
    if (outputs.empty()) {
        throw VeException("Cannot list session output locations: Session {0} does not exist", sessionName);
    }
    return outputs;
}

}  // namespace Kel::System::Ve::Internal::Linux
