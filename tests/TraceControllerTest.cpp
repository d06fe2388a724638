#include "support/TemporaryFolder.h"
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

    /// What the operation comes to where there are these sessions.
    static void With(std::vector<lttng_session> sessions, const std::function<void()>& operation) {
        // As the control library hands them out, to be freed.
        const auto reply = [&](void* result) {
            auto* const records = static_cast<lttng_session*>(std::calloc(sessions.size() + 1, sizeof(lttng_session)));
            std::copy(sessions.begin(), sessions.end(), records);
            *static_cast<lttng_session**>(result) = records;
        };
        const FailingCall call("lttng_list_sessions", static_cast<std::intptr_t>(sessions.size()), reply);
        operation();
    }

    const TemporaryFolder folder;
    const std::string home = folder / "";
    const std::unique_ptr<ITraceControllerService> controller{factory->CreateTraceController()};
};

std::string Failed(const std::string& what, int code, const std::string& end = ".") {
    return what + lttng_strerror(code) + " (" + std::to_string(code) + ")" + end;
}

TEST_F(TraceControllerTest, WithoutADaemonEverythingElseFails) {
    EXPECT_TRUE(SucceedsAsUser([this] {
        EXPECT_FALSE(controller->IsSessionDaemonAlive());
        EXPECT_TRUE(Throws([this] { controller->LoadSessionConfiguration("some", home); },
                           Failed("Could not load session. Error ", -LTTNG_ERR_LOAD_SESSION_NOENT)));
        EXPECT_TRUE(
            Throws([this] { controller->ListSessions(); },
                   Failed("Could not query session list from tracing service. Error ", -LTTNG_ERR_NO_SESSIOND, "")));
        EXPECT_TRUE(Throws([this] { controller->IsSessionEnabled("{0}"); },
                           "Cannot check enable mode of Session: Session {0} does not exist"));
    }));
}

TEST_F(TraceControllerTest, ResultsAreTold) {
    for (const auto& [result, isAlive] : {std::pair(1, true), {0, false}, {2, false}, {-1, false}}) {
        const FailingCall call("lttng_session_daemon_alive", result, 0);
        EXPECT_EQ(controller->IsSessionDaemonAlive(), isAlive);
    }
    {
        const FailingCall call("lttng_load_session", 0, 0);
        EXPECT_TRUE(controller->LoadSessionConfiguration("some", home));
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
    lttng_session full{};
    std::fill_n(full.name, sizeof full.name, 'x');
    std::fill_n(full.path, sizeof full.path, 'y');
    full.snapshot_mode = 1;
    lttng_session some{};
    std::strcpy(some.name, "some");
    std::strcpy(some.path, "/one");
    lttng_session again = some;
    std::fill_n(again.path, sizeof again.path, 'y');
    again.enabled = 1;
    const std::vector<lttng_session> sessions{full, some, again};
    const BasicString longest(sizeof full.name, 'x');
    With(sessions, [&] { EXPECT_EQ(controller->ListSessions(), (Names{longest, "some", "some"})); });
    With(sessions, [&] {
        EXPECT_EQ(controller->ListSessionOutputs("some"), (Names{"/one", BasicString(sizeof full.path, 'y')}));
    });
    // The first of that name.
    With(sessions, [&] { EXPECT_FALSE(controller->IsSessionEnabled("some")); });
    With(sessions, [&] { EXPECT_TRUE(controller->IsSessionInSnapshotMode(longest)); });
    for (const std::string name : {"som", "some1", "Some", ""}) {
        With(sessions, [&] {
            EXPECT_TRUE(Throws([&] { controller->IsSessionEnabled(name); },
                               "Cannot check enable mode of Session: Session " + name + " does not exist"));
        });
    }
    With({}, [&] {
        EXPECT_TRUE(Throws([this] { controller->ListSessionOutputs("{}"); },
                           "Cannot list session output locations: Session {} does not exist"));
    });
    With({}, [&] {
        EXPECT_TRUE(Throws([this] { controller->RecordSessionSnapshot("some"); },
                           "Cannot check snapshot mode of Session: Session some does not exist"));
    });
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
    EXPECT_TRUE(SucceedsAsUser([this] {
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
        Names names = controller->ListSessions();
        names.sort();
        EXPECT_EQ(names, (Names{"normal", "ring"}));
        EXPECT_EQ(controller->ListSessionOutputs("normal"), Names{folder / "traces"});
        EXPECT_EQ(controller->ListSessionOutputs("ring"), Names{folder / "snapshots"});
        EXPECT_FALSE(controller->IsSessionInSnapshotMode("normal"));
        EXPECT_TRUE(controller->IsSessionInSnapshotMode("ring"));

        EXPECT_TRUE(Throws([this] { controller->StartSession("normal"); },
                           Failed("Could not start session. Error: ", -LTTNG_ERR_TRACE_ALREADY_STARTED)));
        EXPECT_TRUE(Throws([this] { controller->RecordSessionSnapshot("normal"); },
                           "Cannot record session snapshot: Session normal is not in snapshot mode"));
        EXPECT_TRUE(controller->RecordSessionSnapshot("ring"));
        {
            const FailingCall call("lttng_snapshot_record", 1, 0);
            EXPECT_FALSE(controller->RecordSessionSnapshot("ring"));
        }
        EXPECT_TRUE(controller->StopSession("normal"));
        EXPECT_FALSE(controller->IsSessionEnabled("normal"));

        EXPECT_TRUE(lttng("save normal --output-path=" + folder / "saved"));
        EXPECT_TRUE(controller->DestroySession("normal"));
        EXPECT_TRUE(Throws([this] { controller->DestroySession("normal"); },
                           Failed("Could not destroy session. Error: ", -LTTNG_ERR_SESS_NOT_FOUND)));
        EXPECT_TRUE(controller->LoadSessionConfiguration("normal", folder / "saved"));
        EXPECT_FALSE(controller->IsSessionEnabled("normal"));
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
    }));
}

}  // namespace
