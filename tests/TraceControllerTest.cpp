#include "support/Test.h"

#include <lttng/lttng.h>
#include <poll.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstring>
#include <list>

namespace {

using Names = std::list<BasicString>;

class TraceControllerTest : public FactoryTest {
protected:
    /// Runs `test` in a child, as an ordinary user with a home folder, where a session daemon of its own would live.
    testing::AssertionResult SucceedsAsUser(const std::function<void()>& test) {
        return SucceedsInChild([&] {
            alarm(120);
            BecomeOrdinaryUser(home);
            // NOLINTBEGIN(concurrency-mt-unsafe): the child has one thread.
            setenv("LTTNG_HOME", home.c_str(), 1);
            setenv("HOME", home.c_str(), 1);
            // NOLINTEND(concurrency-mt-unsafe)
            test();
        });
    }

    const TemporaryFolder folder;
    const std::string home = folder / "";
    const std::unique_ptr<ITraceControllerService> controller = Own(factory->CreateTraceController());
};

// While it lives, there are these sessions, as the control library hands them out: to be freed.
Interposition Sessions(const std::vector<lttng_session>& sessions) {
    return {"lttng_list_sessions", [sessions](const auto& arguments) {
                auto* const records =
                    static_cast<lttng_session*>(std::calloc(sessions.size() + 1, sizeof(lttng_session)));
                std::copy(sessions.begin(), sessions.end(), records);
                *Interposition::Pointer<lttng_session*>(arguments[0]) = records;
                return static_cast<std::intptr_t>(sessions.size());
            }};
}

TEST_F(TraceControllerTest, FailuresAreReported) {
    const std::string error = std::string(lttng_strerror(-EACCES)) + " (-13)";
    const auto load = [this] { return controller->LoadSessionConfiguration("some", home); };
    const auto listOutputs = [this] { return controller->ListSessionOutputs("some").size(); };
    const auto record = [this] { return controller->RecordSessionSnapshot("some"); };
    const auto isEnabled = [this] { return controller->IsSessionEnabled("{0}"); };
    const std::string noList = "VeException: Could not query session list from tracing service";
    ExpectFailures({
        {"lttng_load_session_attr_create", load, "VeException: Could not create attribute to load session."},
        {"lttng_load_session_attr_set_session_name", load,
         "VeException: Could not set session name. Error " + error + "."},
        {"lttng_load_session_attr_set_input_url", load, "VeException: Could not set input url. Error: " + error + "."},
        {"lttng_load_session", load, "VeException: Could not load session. Error " + error + "."},
        {"lttng_list_sessions", [this] { controller->ListSessions(); }, noList + ". Error " + error},
        {"lttng_list_sessions", listOutputs, noList + ". Error " + error},
        {"lttng_list_sessions", record, noList + " for Snapshot mode detection. Error " + error},
        {"lttng_list_sessions", isEnabled,
         "VeException: Cannot check enable mode of Session: Session {0} does not exist"},
        {"lttng_start_tracing", [this] { controller->StartSession("some"); },
         "VeException: Could not start session. Error: " + error + "."},
        {"lttng_stop_tracing", [this] { controller->StopSession("some"); },
         "VeException: Could not stop session. Error: " + error + "."},
        {"lttng_destroy_session", [this] { controller->DestroySession("some"); },
         "VeException: Could not destroy session. Error: " + error + "."},
        {"lttng_session_daemon_alive", [this] { return controller->IsSessionDaemonAlive(); }, "false"},
    });
    lttng_session some{};
    std::strcpy(some.name, "some");
    some.snapshot_mode = 1;
    const Interposition sessions = Sessions({some});
    ExpectFailures({
        {"lttng_snapshot_record", record, "VeException: Failed to record snapshot. Error " + error},
        {"lttng_snapshot_list_output", listOutputs,
         "VeException: Failed to list snapshot output locations for session some"},
    });
}

TEST_F(TraceControllerTest, ResultsAreTold) {
    // A success, but of another kind.
    const std::pair<const char*, std::function<bool()>> table[] = {
        {"lttng_start_tracing", [this] { return controller->StartSession("some"); }},
        {"lttng_stop_tracing", [this] { return controller->StopSession("some"); }},
        {"lttng_destroy_session", [this] { return controller->DestroySession("some"); }},
        {"lttng_session_daemon_alive", [this] { return controller->IsSessionDaemonAlive(); }}};
    for (const auto& [function, operation] : table) {
        const Interposition call(function, [](const auto& /*arguments*/) { return 2; });
        EXPECT_FALSE(operation());
    }
}

TEST_F(TraceControllerTest, NamesAreComparedWhole) {
    lttng_session full{};
    std::fill_n(full.name, sizeof full.name, 'x');
    std::fill_n(full.path, sizeof full.path, 'y');
    full.snapshot_mode = 1;
    lttng_session some{};
    std::strcpy(some.name, "some");
    std::strcpy(some.path, "/one");
    lttng_session again = some;
    std::copy_n(full.path, sizeof full.path, again.path);
    again.enabled = 1;
    const Interposition sessions = Sessions({full, some, again});
    const BasicString longest(sizeof full.name, 'x');
    EXPECT_EQ(controller->ListSessions(), (Names{longest, "some", "some"}));
    EXPECT_EQ(controller->ListSessionOutputs("some"), (Names{"/one", BasicString(sizeof full.path, 'y')}));
    // The first of that name.
    EXPECT_FALSE(controller->IsSessionEnabled("some"));
    EXPECT_TRUE(controller->IsSessionInSnapshotMode(longest));
    for (const std::string name : {"som", "some1", "Some", ""}) {
        const std::string missing = "Session: Session " + name + " does not exist";
        EXPECT_TRUE(ComesTo([&] { controller->IsSessionEnabled(name); },
                            "VeException: Cannot check enable mode of " + missing));
        EXPECT_TRUE(ComesTo([&] { controller->RecordSessionSnapshot(name); },
                            "VeException: Cannot check snapshot mode of " + missing));
        EXPECT_TRUE(ComesTo([&] { controller->ListSessionOutputs(name); },
                            "VeException: Cannot list session output locations: Session " + name + " does not exist"));
    }
    EXPECT_TRUE(ComesTo([&] { controller->RecordSessionSnapshot("some"); },
                        "VeException: Cannot record session snapshot: Session some is not in snapshot mode"));
}

// A session daemon, ended with the object.
class SessionDaemon {
public:
    explicit SessionDaemon(const std::string& pidFile) {
        EXPECT_TRUE(Succeeds("lttng-sessiond --daemonize --no-kernel --pidfile " + pidFile));
        std::ifstream(pidFile) >> processId;
    }
    ~SessionDaemon() {
        // Readable once the process has ended.
        pollfd ended{static_cast<int>(syscall(SYS_pidfd_open, processId, 0)), POLLIN, 0};
        EXPECT_TRUE(ended.fd != -1 && kill(processId, SIGTERM) == 0 && poll(&ended, 1, -1) == 1);
    }

    SessionDaemon(const SessionDaemon&) = delete;
    SessionDaemon& operator=(const SessionDaemon&) = delete;

private:
    pid_t processId = 0;
};

TEST_F(TraceControllerTest, ControlsTheSessionsOfARealDaemon) {
    if (IsEmulated() || !Succeeds("lttng-sessiond --version")) {
        GTEST_SKIP() << "needs lttng-sessiond (package lttng-tools) of this program's own machine";
    }
    EXPECT_TRUE(SucceedsAsUser([this] {
        EXPECT_FALSE(controller->IsSessionDaemonAlive());
        const SessionDaemon daemon(folder / "pid");
        EXPECT_TRUE(controller->IsSessionDaemonAlive());
        EXPECT_EQ(controller->ListSessions(), Names());

        const auto lttng = [](const std::string& command) { return Succeeds("lttng --no-sessiond " + command); };
        EXPECT_TRUE(lttng("create normal --output=" + folder / "traces"));
        EXPECT_TRUE(lttng("create ring --snapshot --output=" + folder / "snapshots"));
        for (const std::string name : {"normal", "ring"}) {
            EXPECT_TRUE(lttng("enable-event --userspace --all --session " + name));
            EXPECT_FALSE(controller->IsSessionEnabled(name));
            EXPECT_TRUE(controller->StartSession(name));
            EXPECT_TRUE(controller->IsSessionEnabled(name));
        }
        EXPECT_EQ(controller->ListSessionOutputs("normal"), Names{folder / "traces"});
        EXPECT_EQ(controller->ListSessionOutputs("ring"), Names{folder / "snapshots"});
        EXPECT_FALSE(controller->IsSessionInSnapshotMode("normal"));
        EXPECT_TRUE(controller->RecordSessionSnapshot("ring"));
        EXPECT_TRUE(controller->StopSession("normal"));
        EXPECT_FALSE(controller->IsSessionEnabled("normal"));

        EXPECT_TRUE(lttng("save normal --output-path=" + folder / "saved"));
        EXPECT_TRUE(controller->DestroySession("normal"));
        EXPECT_TRUE(controller->LoadSessionConfiguration("normal", folder / "saved"));
        EXPECT_FALSE(controller->IsSessionEnabled("normal"));
        EXPECT_TRUE(controller->DestroySession("normal"));
        EXPECT_TRUE(controller->DestroySession("ring"));

        // From several threads, one of which is cancelled meanwhile.
        const std::ptrdiff_t open = OpenDescriptors();
        std::vector<std::thread> threads(4);
        for (std::thread& thread : threads) {
            thread = std::thread([this, isCancelled = &thread == threads.data()] {
                if (isCancelled) {
                    pthread_cancel(pthread_self());
                }
                for (int j = 0; j < 50; ++j) {
                    EXPECT_EQ(controller->ListSessions(), Names());
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(OpenDescriptors(), open);
    }));
}

}  // namespace
