#include "support/Test.h"

#include <lttng/lttng.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cstring>
#include <list>

namespace {

using Names = std::list<BasicString>;

class TraceControllerTest : public FactoryTest {
protected:
    const TemporaryFolder folder;
    const std::unique_ptr<ITraceControllerService> controller = Own(factory->CreateTraceController());
};

lttng_session Session(const std::string& name, const std::string& path) {
    lttng_session session{};
    name.copy(session.name, sizeof session.name);
    path.copy(session.path, sizeof session.path);
    return session;
}

// While it lives, there are these sessions, as the control library hands them out: to be freed.
Interposition Sessions(const std::vector<lttng_session>& sessions) {
    return {"lttng_list_sessions", [sessions](const auto& arguments) {
                const std::size_t size = sessions.size() * sizeof sessions[0];
                *Interposition::Pointer<void*>(arguments[0]) = std::memcpy(std::malloc(size), sessions.data(), size);
                return static_cast<std::intptr_t>(sessions.size());
            }};
}

TEST_F(TraceControllerTest, FailuresAreReported) {
    const std::string error = std::string(lttng_strerror(-EACCES)) + " (-13)";
    const std::string could = "VeException: Could not ";
    const std::string noList = could + "query session list from tracing service";
    const auto load = [this] { return controller->LoadSessionConfiguration("some", "/"); };
    const auto list = [this] { return controller->ListSessions().size(); };
    const auto listOutputs = [this] { return controller->ListSessionOutputs("some").size(); };
    const auto record = [this] { return controller->RecordSessionSnapshot("some"); };
    const auto start = [this] { return controller->StartSession("some"); };
    const auto stop = [this] { return controller->StopSession("some"); };
    const auto destroy = [this] { return controller->DestroySession("some"); };
    // A success, but of another kind.
    constexpr int two = -2;
    ExpectFailures({
        {"lttng_load_session_attr_create", load, could + "create attribute to load session."},
        {"lttng_load_session_attr_set_session_name", load, could + "set session name. Error " + error + "."},
        {"lttng_load_session_attr_set_input_url", load, could + "set input url. Error: " + error + "."},
        {"lttng_load_session", load, could + "load session. Error " + error + "."},
        {"lttng_list_sessions", list, noList + ". Error " + error},
        // The control library has no text for this one.
        {"lttng_list_sessions", list, noList + ". Error Unknown error code (-52)", 0, 52},
        {"lttng_list_sessions", listOutputs, noList + ". Error " + error},
        {"lttng_list_sessions", record, noList + " for Snapshot mode detection. Error " + error},
        {"lttng_list_sessions", [this] { return controller->IsSessionEnabled("{0}"); },
         "VeException: Cannot check enable mode of Session: Session {0} does not exist"},
        {"lttng_start_tracing", start, could + "start session. Error: " + error + "."},
        {"lttng_start_tracing", start, "false", 0, two},
        {"lttng_stop_tracing", stop, could + "stop session. Error: " + error + "."},
        {"lttng_stop_tracing", stop, "false", 0, two},
        {"lttng_destroy_session", destroy, could + "destroy session. Error: " + error + "."},
        {"lttng_destroy_session", destroy, "false", 0, two},
        {"lttng_session_daemon_alive", [this] { return controller->IsSessionDaemonAlive(); }, "false", 0, two},
    });
    lttng_session some = Session("some", "");
    some.snapshot_mode = 1;
    const Interposition sessions = Sessions({some});
    ExpectFailures({
        {"lttng_snapshot_record", record, "VeException: Failed to record snapshot. Error " + error},
        {"lttng_snapshot_record", record, "false", 0, two},
        {"lttng_snapshot_list_output", listOutputs,
         "VeException: Failed to list snapshot output locations for session some"},
    });
}

TEST_F(TraceControllerTest, NamesAreComparedWhole) {
    const BasicString longest(sizeof lttng_session::name, 'x');
    const BasicString longestPath(sizeof lttng_session::path, 'y');
    lttng_session again = Session("some", longestPath);
    again.enabled = 1;
    const Interposition sessions = Sessions({Session("some", "/one"), Session(longest, "/"), again});
    // The records are freed.
    const auto freed = CallsOf("free", [&] {
        EXPECT_EQ(controller->ListSessions(), (Names{"some", longest, "some"}));
    });
    EXPECT_EQ(freed.size(), 1U);
    EXPECT_EQ(controller->ListSessionOutputs("some"), (Names{"/one", longestPath}));
    // The first of that name.
    EXPECT_FALSE(controller->IsSessionEnabled("some"));
    EXPECT_TRUE(ComesTo([&] { controller->RecordSessionSnapshot("some"); },
                        "VeException: Cannot record session snapshot: Session some is not in snapshot mode"));
    for (const std::string name : {"som", "some1"}) {
        const std::string missing = "Session " + name + " does not exist";
        EXPECT_TRUE(ComesTo([&] { controller->IsSessionInSnapshotMode(name); },
                            "VeException: Cannot check snapshot mode of Session: " + missing));
        EXPECT_TRUE(ComesTo([&] { controller->ListSessionOutputs(name); },
                            "VeException: Cannot list session output locations: " + missing));
    }
}

// The control library is one for the whole process, with one connection.
TEST_F(TraceControllerTest, ThreadsUseTheControlLibraryOneByOne) {
    std::thread other;
    std::atomic<int> calls{0};
    const Interposition call("lttng_session_daemon_alive", [&](const auto& /*arguments*/) {
        if (++calls == 1) {
            other = Sleeping([this] { controller->IsSessionDaemonAlive(); });
            EXPECT_EQ(calls, 1);
        }
        return 1;
    });
    controller->IsSessionDaemonAlive();
    other.join();
}

TEST_F(TraceControllerTest, DaemonThatClosesTheConnectionDoesNotEndTheProcess) {
    const Interposition call("lttng_list_sessions", [](const auto& /*arguments*/) {
        raise(SIGPIPE);
        return -1;
    });
    EXPECT_THROW(controller->ListSessions(), VeException);
}

TEST_F(TraceControllerTest, ControlsTheSessionsOfARealDaemon) {
    if (IsEmulated() || !Succeeds("lttng-sessiond --version")) {
        GTEST_SKIP() << "needs lttng-sessiond (package lttng-tools) of this program's own machine";
    }
    const auto control = [this] {
        EXPECT_TRUE(controller->IsSessionDaemonAlive());
        EXPECT_EQ(controller->ListSessions().size(), 2U);
        EXPECT_TRUE(controller->StartSession("normal"));
        EXPECT_TRUE(controller->IsSessionEnabled("normal"));
        EXPECT_TRUE(controller->StopSession("normal"));
        EXPECT_FALSE(controller->IsSessionEnabled("normal"));
        EXPECT_FALSE(controller->IsSessionInSnapshotMode("normal"));
        EXPECT_TRUE(controller->DestroySession("normal"));
        EXPECT_TRUE(controller->LoadSessionConfiguration("normal", folder / "saved"));
        EXPECT_EQ(controller->ListSessionOutputs("normal"), Names{folder / "traces"});
        EXPECT_TRUE(controller->StartSession("ring"));
        EXPECT_TRUE(controller->RecordSessionSnapshot("ring"));
        // The daemon has one output for each session as yet: it is told twice.
        std::intptr_t output = 0;
        const Interposition next("lttng_snapshot_output_list_get_next", [&](const auto& arguments) {
            const std::intptr_t previous = std::exchange(output, next.CallThrough(arguments));
            return output != 0 ? output : previous;
        });
        const auto freed = CallsOf("lttng_snapshot_output_list_destroy", [this] {
            EXPECT_EQ(controller->ListSessionOutputs("ring"), Names(2, folder / "snapshots"));
        });
        EXPECT_EQ(freed.size(), 1U);
    };
    // As an ordinary user, in whose home folder a daemon lives, which is ended whatever has happened.
    EXPECT_TRUE(SucceedsInChild([&] {
        alarm(120);
        BecomeOrdinaryUser(folder / "");
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the child has one thread.
        setenv("LTTNG_HOME", (folder / "").c_str(), 1);
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        EXPECT_FALSE(controller->IsSessionDaemonAlive());
        EXPECT_TRUE(Succeeds("lttng-sessiond --daemonize --no-kernel --pidfile " + folder / "pid"));
        for (const std::string& command :
             {"create normal --output=" + folder / "traces", "create ring --snapshot --output=" + folder / "snapshots",
              std::string("enable-event --userspace --all --session normal"),
              std::string("enable-event --userspace --all --session ring"), "save --output-path=" + folder / "saved"}) {
            EXPECT_TRUE(Succeeds("lttng --no-sessiond " + command)) << command;
        }
        EXPECT_TRUE(SucceedsInChild([&] { EXPECT_TRUE(HasNoCancellationPoint(control)); }));
        EXPECT_TRUE(Succeeds("kill " + folder.Read("pid")));
        while (wait(nullptr) != -1) {
        }
    }));
}

}  // namespace
