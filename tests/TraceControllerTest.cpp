#include "support/TemporaryFolder.h"
#include "support/Test.h"

#include <lttng/lttng.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <list>

namespace {

using Names = std::list<BasicString>;

class TraceControllerTest : public FactoryTest {
protected:
    /// Runs `test` in a child, as an ordinary user with a home folder, where a session daemon of its own would live.
    int AsUser(const std::function<void()>& test) {
        return Child([&] {
                   alarm(120);
                   BecomeOrdinaryUser(home);
                   // NOLINTBEGIN(concurrency-mt-unsafe): the child has one thread.
                   setenv("LTTNG_HOME", home.c_str(), 1);
                   setenv("HOME", home.c_str(), 1);
                   // NOLINTEND(concurrency-mt-unsafe)
                   test();
                   return testing::Test::HasFailure() ? 1 : 0;
               })
            .Wait();
    }

    const TemporaryFolder folder;
    const std::string home = folder / "";
    const std::unique_ptr<ITraceControllerService> controller{factory->CreateTraceController()};
};

std::string Failed(const std::string& what, int code, const std::string& end) {
    return what + lttng_strerror(code) + " (" + std::to_string(code) + ")" + end;
}

constexpr char queryFailed[] = "Could not query session list from tracing service. Error ";
constexpr char modeQueryFailed[] =
    "Could not query session list from tracing service for Snapshot mode detection. Error ";

TEST_F(TraceControllerTest, WithoutADaemonEverythingElseFails) {
    const int status = AsUser([this] {
        EXPECT_FALSE(controller->IsSessionDaemonAlive());
        const struct {
            std::function<void()> operation;
            std::string message;
        } table[] = {
            {[this] { controller->LoadSessionConfiguration("some", home); },
             Failed("Could not load session. Error ", -LTTNG_ERR_LOAD_SESSION_NOENT, ".")},
            {[this] { controller->ListSessions(); }, Failed(queryFailed, -LTTNG_ERR_NO_SESSIOND, "")},
            {[this] { controller->StartSession("some"); },
             Failed("Could not start session. Error: ", -LTTNG_ERR_NO_SESSIOND, ".")},
            {[this] { controller->StopSession("some"); },
             Failed("Could not stop session. Error: ", -LTTNG_ERR_NO_SESSIOND, ".")},
            {[this] { controller->DestroySession("some"); },
             Failed("Could not destroy session. Error: ", -LTTNG_ERR_NO_SESSIOND, ".")},
            {[this] { controller->IsSessionInSnapshotMode("some"); },
             Failed(modeQueryFailed, -LTTNG_ERR_NO_SESSIOND, "")},
            {[this] { controller->IsSessionEnabled("{0}"); },
             "Cannot check enable mode of Session: Session {0} does not exist"},
            {[this] { controller->RecordSessionSnapshot("some"); },
             Failed(modeQueryFailed, -LTTNG_ERR_NO_SESSIOND, "")},
            {[this] { controller->ListSessionOutputs("some"); }, Failed(queryFailed, -LTTNG_ERR_NO_SESSIOND, "")},
        };
        for (const auto& row : table) {
            EXPECT_TRUE(Throws<VeException>(row.operation, row.message));
        }
    });
    EXPECT_EQ(status, 0);
}

TEST_F(TraceControllerTest, FailedCallsAreReported) {
    const int code = -LTTNG_ERR_INVALID;
    const struct {
        const char* function;
        std::intptr_t result;
        std::function<void()> operation;
        std::string message;
    } table[] = {
        {"lttng_load_session_attr_create", 0, [this] { controller->LoadSessionConfiguration("some", home); },
         "Could not create attribute to load session."},
        {"lttng_load_session_attr_set_session_name", code,
         [this] { controller->LoadSessionConfiguration("some", home); },
         Failed("Could not set session name. Error ", code, ".")},
        {"lttng_load_session_attr_set_input_url", code, [this] { controller->LoadSessionConfiguration("some", home); },
         Failed("Could not set input url. Error: ", code, ".")},
        {"lttng_load_session", code, [this] { controller->LoadSessionConfiguration("some", home); },
         Failed("Could not load session. Error ", code, ".")},
        {"lttng_list_sessions", code, [this] { controller->ListSessions(); }, Failed(queryFailed, code, "")},
        {"lttng_list_sessions", 0, [this] { controller->ListSessionOutputs("{}"); },
         "Cannot list session output locations: Session {} does not exist"},
        {"lttng_list_sessions", 0, [this] { controller->RecordSessionSnapshot("some"); },
         "Cannot check snapshot mode of Session: Session some does not exist"},
    };
    for (const auto& row : table) {
        const FailingCall call(row.function, row.result, EACCES);
        EXPECT_TRUE(Throws<VeException>(row.operation, row.message));
    }
    {
        const FailingCall call("lttng_load_session", 0, 0);
        EXPECT_TRUE(controller->LoadSessionConfiguration("some", home));
    }
    for (const auto& [result, isAlive] : {std::pair(1, true), {0, false}, {2, false}, {-1, false}}) {
        const FailingCall call("lttng_session_daemon_alive", result, 0);
        EXPECT_EQ(controller->IsSessionDaemonAlive(), isAlive);
    }
    // A success, but of another kind.
    const std::pair<const char*, std::function<bool()>> others[] = {
        {"lttng_start_tracing", [this] { return controller->StartSession("some"); }},
        {"lttng_stop_tracing", [this] { return controller->StopSession("some"); }},
        {"lttng_destroy_session", [this] { return controller->DestroySession("some"); }}};
    for (const auto& [function, operation] : others) {
        const FailingCall call(function, 1, 0);
        EXPECT_FALSE(operation());
    }
}

TEST_F(TraceControllerTest, NamesAreComparedWhole) {
    // As the control library hands them out, to be freed.
    const auto reply = [](void* sessions) {
        auto* const records = static_cast<lttng_session*>(std::calloc(3, sizeof(lttng_session)));
        std::fill_n(records[0].name, sizeof records[0].name, 'x');
        std::fill_n(records[0].path, sizeof records[0].path, 'y');
        records[0].snapshot_mode = 1;
        std::strcpy(records[1].name, "some");
        std::strcpy(records[1].path, "/one");
        records[2] = records[1];
        std::fill_n(records[2].path, sizeof records[2].path, 'y');
        records[2].enabled = 1;
        *static_cast<lttng_session**>(sessions) = records;
    };
    const auto with = [&](const std::function<void()>& operation) {
        const FailingCall call("lttng_list_sessions", 3, reply);
        operation();
    };
    const BasicString longest(sizeof(lttng_session::name), 'x');
    with([&] { EXPECT_EQ(controller->ListSessions(), (Names{longest, "some", "some"})); });
    with([&] {
        EXPECT_EQ(controller->ListSessionOutputs("some"),
                  (Names{"/one", BasicString(sizeof(lttng_session::path), 'y')}));
    });
    // The first of that name.
    with([&] { EXPECT_FALSE(controller->IsSessionEnabled("some")); });
    with([&] { EXPECT_TRUE(controller->IsSessionInSnapshotMode(longest)); });
    for (const char* const name : {"som", "some1", "Some", ""}) {
        with([&] {
            EXPECT_TRUE(Throws<VeException>(
                [&] { controller->IsSessionEnabled(name); },
                std::string("Cannot check enable mode of Session: Session ") + name + " does not exist"));
        });
    }
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
    if (IsEmulated()) {
        GTEST_SKIP() << "needs a session daemon of this program's own machine";
    }
    if (!Succeeds("lttng-sessiond --version")) {
        GTEST_SKIP() << "needs lttng-sessiond (package lttng-tools)";
    }
    const int status = AsUser([this] {
        const SessionDaemon daemon(folder / "pid");
        EXPECT_TRUE(controller->IsSessionDaemonAlive());
        EXPECT_EQ(controller->ListSessions(), Names());

        const std::string lttng = "lttng --no-sessiond ";
        const std::string path = folder / "traces";
        const std::string snapshotPath = folder / "snapshots";
        EXPECT_TRUE(Succeeds(lttng + "create normal --output=" + path));
        EXPECT_TRUE(Succeeds(lttng + "enable-event --userspace --all --session normal"));
        EXPECT_TRUE(Succeeds(lttng + "create ring --snapshot --output=" + snapshotPath));
        EXPECT_TRUE(Succeeds(lttng + "enable-event --userspace --all --session ring"));
        Names names = controller->ListSessions();
        names.sort();
        EXPECT_EQ(names, (Names{"normal", "ring"}));
        EXPECT_EQ(controller->ListSessionOutputs("normal"), Names{path});
        EXPECT_EQ(controller->ListSessionOutputs("ring"), Names{snapshotPath});
        {
            const FailingCall call("lttng_snapshot_list_output", -LTTNG_ERR_INVALID, 0);
            EXPECT_TRUE(Throws<VeException>([this] { controller->ListSessionOutputs("ring"); },
                                            "Failed to list snapshot output locations for session ring"));
        }
        EXPECT_FALSE(controller->IsSessionInSnapshotMode("normal"));
        EXPECT_TRUE(controller->IsSessionInSnapshotMode("ring"));

        for (const char* const name : {"normal", "ring"}) {
            EXPECT_FALSE(controller->IsSessionEnabled(name));
            EXPECT_TRUE(controller->StartSession(name));
            EXPECT_TRUE(controller->IsSessionEnabled(name));
        }
        EXPECT_TRUE(
            Throws<VeException>([this] { controller->StartSession("normal"); },
                                Failed("Could not start session. Error: ", -LTTNG_ERR_TRACE_ALREADY_STARTED, ".")));
        EXPECT_TRUE(Throws<VeException>([this] { controller->RecordSessionSnapshot("normal"); },
                                        "Cannot record session snapshot: Session normal is not in snapshot mode"));
        EXPECT_TRUE(controller->RecordSessionSnapshot("ring"));
        {
            const FailingCall call("lttng_snapshot_record", -LTTNG_ERR_INVALID, 0);
            EXPECT_TRUE(Throws<VeException>([this] { controller->RecordSessionSnapshot("ring"); },
                                            Failed("Failed to record snapshot. Error ", -LTTNG_ERR_INVALID, "")));
        }
        {
            const FailingCall call("lttng_snapshot_record", 1, 0);
            EXPECT_FALSE(controller->RecordSessionSnapshot("ring"));
        }
        EXPECT_TRUE(controller->StopSession("normal"));
        EXPECT_FALSE(controller->IsSessionEnabled("normal"));

        EXPECT_TRUE(Succeeds(lttng + "save normal --output-path=" + folder / "saved"));
        EXPECT_TRUE(controller->DestroySession("normal"));
        EXPECT_TRUE(Throws<VeException>([this] { controller->DestroySession("normal"); },
                                        Failed("Could not destroy session. Error: ", -LTTNG_ERR_SESS_NOT_FOUND, ".")));
        EXPECT_TRUE(controller->LoadSessionConfiguration("normal", folder / "saved"));
        EXPECT_FALSE(controller->IsSessionEnabled("normal"));
        EXPECT_TRUE(Throws<VeException>([this] { controller->LoadSessionConfiguration("other", folder / "saved"); },
                                        Failed("Could not load session. Error ", -LTTNG_ERR_LOAD_SESSION_NOENT, ".")));
        EXPECT_TRUE(controller->DestroySession("normal"));
        EXPECT_TRUE(controller->DestroySession("ring"));

        // From several threads, some of which are cancelled meanwhile.
        const std::ptrdiff_t open = OpenDescriptors();
        std::vector<std::thread> threads(4);
        for (std::thread& thread : threads) {
            thread = std::thread([this, isCancelled = &thread == threads.data()] {
                const std::unique_ptr<ITraceControllerService> own(factory->CreateTraceController());
                if (isCancelled) {
                    pthread_cancel(pthread_self());
                }
                for (int j = 0; j < 50; ++j) {
                    EXPECT_EQ(own->ListSessions(), Names());
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(OpenDescriptors(), open);
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
