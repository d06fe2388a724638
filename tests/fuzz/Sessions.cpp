// Tracer sessions: whatever the daemon lists and answers, names are compared whole and errors are told.

#include "Fuzz.h"

#include <lttng/lttng.h>

#include <cstring>
#include <list>
#include <memory>
#include <vector>

using Names = std::list<Kel::BasicString>;

namespace {

// What the control library reports.
struct {
    std::vector<lttng_session> sessions;
    // Of each call: a negative one is the number of an error.
    int listing;
    int outputListing;
    int other;
    Names outputs;
    Names::const_iterator nextOutput;
    std::string recorded;
} daemonReport;

std::string Name(const lttng_session& session) { return {session.name, strnlen(session.name, sizeof session.name)}; }

}  // namespace

// The library's own calls: it is a shared object, so these definitions come before those of the control library.
extern "C" {

int lttng_list_sessions(lttng_session** sessions) {
    if (daemonReport.listing < 0) {
        return daemonReport.listing;
    }
    const std::size_t bytes = daemonReport.sessions.size() * sizeof **sessions;
    *sessions = static_cast<lttng_session*>(std::malloc(bytes));
    if (bytes > 0) {
        std::memcpy(*sessions, daemonReport.sessions.data(), bytes);
    }
    return static_cast<int>(daemonReport.sessions.size());
}

int lttng_snapshot_list_output(const char* /*session*/, lttng_snapshot_output_list** list) {
    daemonReport.nextOutput = daemonReport.outputs.begin();
    *list = reinterpret_cast<lttng_snapshot_output_list*>(&daemonReport);
    return daemonReport.outputListing;
}

lttng_snapshot_output* lttng_snapshot_output_list_get_next(lttng_snapshot_output_list* /*list*/) {
    return daemonReport.nextOutput != daemonReport.outputs.end()
               ? reinterpret_cast<lttng_snapshot_output*>(const_cast<Kel::BasicString*>(&*daemonReport.nextOutput++))
               : nullptr;
}

const char* lttng_snapshot_output_get_ctrl_url(const lttng_snapshot_output* output) {
    return reinterpret_cast<const Kel::BasicString*>(output)->c_str();
}

void lttng_snapshot_output_list_destroy(lttng_snapshot_output_list* /*list*/) {}

int lttng_snapshot_record(const char* session, lttng_snapshot_output* /*output*/, int /*wait*/) {
    daemonReport.recorded = session;
    return daemonReport.other;
}

int lttng_start_tracing(const char* /*session*/) { return daemonReport.other; }
int lttng_stop_tracing(const char* /*session*/) { return daemonReport.other; }
int lttng_destroy_session(const char* /*session*/) { return daemonReport.other; }
int lttng_load_session(lttng_load_session_attr* /*attributes*/) { return daemonReport.other; }
int lttng_session_daemon_alive() { return daemonReport.other; }

}  // extern "C"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    daemonReport = {};
    daemonReport.listing = input.Number<std::int16_t>();
    daemonReport.outputListing = input.Small();
    daemonReport.other = input.Number<std::int16_t>();
    const auto chosen = input.Number<std::uint8_t>();
    daemonReport.outputs = {UpToNull(input.Text()), UpToNull(input.Text())};
    std::string name = input.Text();
    while (!input.IsEmpty() && daemonReport.sessions.size() < 20) {
        lttng_session session{};
        const auto kind = input.Number<std::uint8_t>();
        session.enabled = kind % 2;
        session.snapshot_mode = kind / 2 % 2;
        const std::string text = input.Text();
        // With a long name it fills its place, and there is no null behind it.
        std::memset(session.name, 'n', kind % 8 == 7 ? sizeof session.name : 0);
        std::memcpy(session.name, text.data(), std::min(text.size(), sizeof session.name));
        std::memset(session.path, 'p', kind % 16 == 15 ? sizeof session.path : 0);
        daemonReport.sessions.push_back(session);
    }
    if (chosen < daemonReport.sessions.size()) {
        name = Name(daemonReport.sessions[chosen]);
    }

    Names names;
    const lttng_session* found = nullptr;
    for (const lttng_session& session : daemonReport.sessions) {
        names.emplace_back(Name(session));
        found = found == nullptr && names.back() == name ? &session : found;
    }
    const bool isListed = daemonReport.listing >= 0;
    const bool isFound = isListed && found != nullptr;
    const bool snaps = isFound && found->snapshot_mode != 0;
    const std::unique_ptr<Kel::System::Ve::ITraceControllerService> controller(Factory().CreateTraceController());

    Names listed;
    bool is = false;
    Require(Thrown([&] { listed = controller->ListSessions(); }).empty() == isListed &&
                listed == (isListed ? names : Names()),
            "all sessions are listed");
    Require(Thrown([&] { is = controller->IsSessionEnabled(name); }).empty() == isFound &&
                is == (isFound && found->enabled != 0),
            "the first session of that name is asked for");
    is = false;
    Require(Thrown([&] { is = controller->IsSessionInSnapshotMode(name); }).empty() == isFound && is == snaps,
            "the first session of that name tells its mode");
    listed.clear();
    if (Thrown([&] { listed = controller->ListSessionOutputs(name); }).empty()) {
        Require(isFound && (!snaps || listed == daemonReport.outputs), "where a session writes is told");
    } else {
        Require(!isFound || daemonReport.outputListing < 0, "what is there is told");
    }

    // An error is told, a success of another kind is none.
    const auto requireOutcome = [&](const std::string& thrown) {
        Require(thrown.empty() == (daemonReport.other >= 0) && is == (daemonReport.other == 0), "an error is told");
        Require(thrown.empty() || thrown.find(" (" + std::to_string(daemonReport.other) + ")") != std::string::npos,
                "an error has a number");
        is = false;
    };
    is = false;
    const std::string thrown = Thrown([&] { is = controller->RecordSessionSnapshot(name); });
    Require(daemonReport.recorded == (snaps ? name : ""), "only sessions in snapshot mode are recorded");
    if (snaps) {
        requireOutcome(thrown);
    }
    requireOutcome(Thrown([&] { is = controller->StartSession(name); }));
    requireOutcome(Thrown([&] { is = controller->StopSession(name); }));
    requireOutcome(Thrown([&] { is = controller->DestroySession(name); }));
    Require(controller->IsSessionDaemonAlive() == (daemonReport.other == 1), "the daemon is there when it says so");
    // The name and the place may be refused, too.
    Require(!Thrown([&] { controller->LoadSessionConfiguration(name, daemonReport.outputs.front()); }).empty() ||
                daemonReport.other >= 0,
            "an error is told");
    return 0;
}
