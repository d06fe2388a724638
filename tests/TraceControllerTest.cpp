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
    const std::unique_ptr<ITraceControllerService> controller = Own(factory->CreateTraceController());
    const std::string error = std::string(lttng_strerror(-EACCES)) + " (-13)";
};

TEST_F(TraceControllerTest, FailuresAreReported) {
    const std::string could = "VeException: Could not ";
    const std::string noList = could + "query session list from tracing service";
    const auto load = [this] { return controller->LoadSessionConfiguration("some", "/"); };
    ExpectFailures({
        {"lttng_load_session_attr_create", load, could + "create attribute to load session."},
        {"lttng_load_session_attr_set_session_name", load, could + "set session name. Error " + error + "."},
        {"lttng_load_session_attr_set_input_url", load, could + "set input url. Error: " + error + "."},
        {"lttng_load_session", load, could + "load session. Error " + error + "."},
        {"lttng_list_sessions", [this] { controller->ListSessions(); }, noList + ". Error " + error},
        // The control library has no text for this one.
        {"lttng_list_sessions", [this] { controller->ListSessions(); }, noList + ". Error Unknown error code (-52)", 0,
         52},
        {"lttng_list_sessions", [this] { controller->ListSessionOutputs(""); }, noList + ". Error " + error},
        {"lttng_list_sessions", [this] { controller->RecordSessionSnapshot(""); },
         noList + " for Snapshot mode detection. Error " + error},
        {"lttng_list_sessions", [this] { controller->IsSessionEnabled("{0}"); },
         "VeException: Cannot check enable mode of Session: Session {0} does not exist"},
        {"lttng_start_tracing", [this] { controller->StartSession(""); },
         could + "start session. Error: " + error + "."},
        {"lttng_stop_tracing", [this] { controller->StopSession(""); }, could + "stop session. Error: " + error + "."},
        {"lttng_destroy_session", [this] { controller->DestroySession(""); },
         could + "destroy session. Error: " + error + "."},
        {"lttng_session_daemon_alive", [this] { return controller->IsSessionDaemonAlive(); }, "false", 0, -2},
    });
}

TEST_F(TraceControllerTest, SessionsAreFoundByTheirWholeName) {
    const BasicString longest(sizeof lttng_session::name, 'x');
    // Name, path, enabled, in snapshot mode.
    lttng_session sessions[] = {{"some", "/one", 0, 0, 0, "", {}},
                                {"", "", 0, 0, 0, "", {}},
                                {"some", "/two", 1, 0, 0, "", {}},
                                {"ring", "", 1, 1, 0, "", {}}};
    longest.copy(sessions[1].name, longest.size());
    const Interposition call("lttng_list_sessions", [&](const auto& arguments) {
        // To be freed.
        void* const copy = std::memcpy(std::malloc(sizeof sessions), sessions, sizeof sessions);
        *Interposition::Pointer<void*>(arguments[0]) = copy;
        return std::size(sessions);
    });
    const auto list = [&] { EXPECT_EQ(controller->ListSessions(), (Names{"some", longest, "some", "ring"})); };
    EXPECT_EQ(CallsOf("free", list).size(), 1U);
    EXPECT_EQ(controller->ListSessionOutputs("some"), (Names{"/one", "/two"}));
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
    ExpectFailures({
        {"lttng_snapshot_record", [this] { controller->RecordSessionSnapshot("ring"); },
         "VeException: Failed to record snapshot. Error " + error},
        {"lttng_snapshot_list_output", [this] { controller->ListSessionOutputs("ring"); },
         "VeException: Failed to list snapshot output locations for session ring"},
    });
}

// The control library is one for the whole process, with one connection.
TEST_F(TraceControllerTest, ThreadsUseTheControlLibraryOneByOneAndWithoutSigpipe) {
    std::thread other;
    std::atomic<int> calls{0};
    const Interposition call("lttng_list_sessions", [&](const auto& /*arguments*/) {
        if (++calls == 1) {
            other = Sleeping([this] { EXPECT_THROW(controller->ListSessions(), VeException); });
            EXPECT_EQ(calls, 1);
        }
        // As when the daemon has closed the connection.
        static_cast<void>(raise(SIGPIPE));
        return -1;
    });
    EXPECT_THROW(controller->ListSessions(), VeException);
    other.join();
    // It is blocked no longer than that.
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
}

TEST_F(TraceControllerTest, ControlsTheSessionsOfARealDaemon) {
    if (IsEmulated() || !Succeeds("lttng-sessiond --version")) {
        GTEST_SKIP() << "needs lttng-sessiond (package lttng-tools) of this program's own machine";
    }
    const TemporaryFolder folder;
    const auto control = [&] {
        EXPECT_TRUE(controller->IsSessionDaemonAlive());
        EXPECT_TRUE(controller->StartSession("ring"));
        EXPECT_TRUE(controller->IsSessionEnabled("ring"));
        EXPECT_TRUE(controller->RecordSessionSnapshot("ring"));
        EXPECT_TRUE(controller->StopSession("ring"));
        EXPECT_FALSE(controller->IsSessionEnabled("ring"));
        EXPECT_TRUE(controller->DestroySession("ring"));
        EXPECT_TRUE(controller->ListSessions().empty());
        EXPECT_TRUE(controller->LoadSessionConfiguration("ring", folder / "saved"));
        const auto list = [&] { EXPECT_EQ(controller->ListSessionOutputs("ring"), Names{folder / "snapshots"}); };
        EXPECT_EQ(CallsOf("lttng_snapshot_output_list_destroy", list).size(), 1U);
    };
    // As an ordinary user, in whose home folder a daemon lives, which is ended whatever has happened.
    EXPECT_TRUE(SucceedsInChild([&] {
        alarm(120);
        BecomeOrdinaryUser(folder / "");
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the child has one thread.
        setenv("LTTNG_HOME", (folder / "").c_str(), 1);
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        EXPECT_FALSE(controller->IsSessionDaemonAlive());
        for (const std::string command : {"lttng-sessiond --daemonize --no-kernel --pidfile $LTTNG_HOME/pid",
                                          "lttng --no-sessiond create ring --snapshot --output=$LTTNG_HOME/snapshots",
                                          "lttng --no-sessiond enable-event --userspace --all",
                                          "lttng --no-sessiond save --output-path=$LTTNG_HOME/saved"}) {
            EXPECT_TRUE(Succeeds(command)) << command;
        }
        EXPECT_TRUE(SucceedsInChild([&] { EXPECT_TRUE(HasNoCancellationPoint(control)); }));
        EXPECT_TRUE(Succeeds("kill " + folder.Read("pid")));
        while (wait(nullptr) != -1) {
        }
    }));
}

}  // namespace
