#include "support/Test.h"

#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

class ProcessTest : public FactoryTest {
protected:
    std::unique_ptr<IProcessService> Make() { return Own(factory->CreateProcess()); }

    /// A program for the shell, to which the arguments are copied; it writes to the file "output".
    BasicString Program(const std::string& text) const {
        BasicString path = folder.Write("program", "exec >" + folder / "output" + "\n" + text + "\n");
        chmod(path.c_str(), 0755);
        return path;
    }

    /// Runs a program to its end.
    int ExitCodeOf(const BasicString& program, const BasicString& parameters = "", const BasicString& directory = "") {
        int exitCode = 99;
        Make()->StartBlocking(directory, program, parameters, exitCode);
        return exitCode;
    }

    /// Waits for the end of some child, and leaves it to be waited for.
    static siginfo_t EndedChild() {
        siginfo_t information{};
        EXPECT_EQ(waitid(P_ALL, 0, &information, WEXITED | WNOWAIT), 0);
        return information;
    }

    const TemporaryFolder folder;
};

TEST_F(ProcessTest, ArgumentsAreSplitAtBlanksTabsAndLineFeeds) {
    EXPECT_EQ(ExitCodeOf(Program("for a; do printf '[%s]' \"$a\"; done"), "  -a\t\"b\n-c\" "), 0);
    EXPECT_EQ(folder.Read("output"), "[-a][\"b][-c\"]");
    std::string many;
    for (int i = 0; i < 60000; ++i) {
        many += "x ";
    }
    EXPECT_EQ(ExitCodeOf(Program("test $# = 60000 && exit 4"), many), 4);
}

TEST_F(ProcessTest, ExitCodeIsThatOfTheProgram) {
    const auto process = Make();
    int exitCode = 99;
    process->StartBlocking("", Program("kill -9 $$"), "", exitCode);
    EXPECT_EQ(exitCode, 0);
    // Its number may be another child's by now.
    EXPECT_TRUE(CallsOf("waitpid", [&] { process->HasExited(); }).empty());
    EXPECT_EQ(ExitCodeOf(Program(""), "", folder / "none"), 1);
    const auto three = [this, program = Program("exit 3")] { return ExitCodeOf(program); };
    ExpectFailures({
        {"waitpid", three, "3", 0, EINTR},
        // One that somebody else has waited for is not told.
        {"waitpid", three, "99", 0, ECHILD},
    });
    EXPECT_GT(wait(nullptr), 0);
}

// It starts in this process's memory.
TEST_F(ProcessTest, StartLeavesSignalsAsTheyAre) {
    static std::atomic<bool> handled{false};
    EXPECT_TRUE(SucceedsInChild([this] {
        EXPECT_NE(signal(SIGUSR1, [](int) { handled = true; }), SIG_ERR);
        EXPECT_NE(signal(SIGHUP, SIG_IGN), SIG_ERR);
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR2);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        const Interposition start("__clone", [&](const auto& arguments) {
            // A handler waits meanwhile, but this process can be ended.
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            EXPECT_EQ(sigismember(&mask, SIGUSR1), 1);
            EXPECT_EQ(sigismember(&mask, SIGTERM), 0);
            return start.CallThrough(arguments);
        });
        // In the child, no handler runs.
        const Interposition arrival("chdir", [](const auto& /*arguments*/) { return raise(SIGUSR1); });
        EXPECT_EQ(ExitCodeOf("/bin/false", "", "/"), 0);
        // Not by the shell, which unblocks all.
        EXPECT_EQ(ExitCodeOf("/bin/grep", "-q SigIgn:.*[13579bdf]$ /proc/self/status"), 0);
        EXPECT_EQ(ExitCodeOf("/bin/grep", "-q SigBlk:.0*800$ /proc/self/status"), 0);
        EXPECT_FALSE(handled);
    }));
}

TEST_F(ProcessTest, RelativePathsStartInTheWorkingDirectory) {
    EXPECT_TRUE(SucceedsInChild([this] {
        EXPECT_EQ(chdir((folder / "").c_str()), 0);
        Program("test $(pwd) = / && exit 5");
        EXPECT_EQ(ExitCodeOf("program", "", "/"), 5);
        // PATH is not searched.
        EXPECT_TRUE(ComesTo([this] { ExitCodeOf("sh"); },
                            "VeException: EnsureExecutableExists: Could not find executable " + folder / "sh" + "."));
    }));
}

TEST_F(ProcessTest, OnlyItsOwnChildIsWaitedForAndKilled) {
    const auto process = Make();
    const auto other = Make();
    other->Start("", "/bin/sleep", "100");
    process->Start("", Program("exit 7"), "");
    EndedChild();
    EXPECT_TRUE(ComesTo([&] { other->Start("", "/bin/true", ""); },
                        "VeException: EnsureHasNotStarted: Process already started."));
    EXPECT_TRUE(process->HasExited());
    // Its number is not its own any more.
    EXPECT_TRUE(CallsOf("waitpid", [&] { EXPECT_TRUE(process->HasExited()); }).empty());
    other->Kill();
    EXPECT_TRUE(other->HasExited());
    // The one that has been killed is not waited for.
    const Interposition signal("kill", [](const auto& /*arguments*/) {
        ADD_FAILURE();
        return 0;
    });
    ExpectFailures({
        {"__clone", [this] { return ExitCodeOf("/bin/true"); }, "99"},
        {"__clone", [&] { process->Start("", "/bin/true", ""); }, "done"},
    });
    EXPECT_TRUE(process->HasExited());
    process->Kill();
    EXPECT_EQ(EndedChild().si_status, SIGKILL);
    wait(nullptr);
    process->Start("", "/bin/true", "");
    // In this process's session, unlike a daemon.
    EXPECT_EQ(getsid(EndedChild().si_pid), getsid(0));
    // Ended well, it is told by the second call.
    EXPECT_FALSE(process->HasExited());
    EXPECT_TRUE(process->HasExited());
    // Someone else waits for it.
    process->Start("", "/bin/true", "");
    wait(nullptr);
    EXPECT_TRUE(process->HasExited());
    process->Start("", "/bin/true", "");
    wait(nullptr);
    process->Kill();
}

TEST_F(ProcessTest, DaemonHasASessionOfItsOwn) {
    const auto process = Make();
    process->StartDaemon("", "/bin/true", "");
    const pid_t daemon = EndedChild().si_pid;
    EXPECT_EQ(getsid(daemon), daemon);
    // One that has ended is left to be waited for.
    process->Kill();
    EXPECT_EQ(waitpid(daemon, nullptr, 0), daemon);
}

TEST_F(ProcessTest, CurrentProcessIsSetUpAndKnowsItsName) {
    EXPECT_TRUE(SucceedsInChild([] {
        const std::string before = OwnSettings();
        const std::string bound = before.substr(0, before.find(',')) + ", normal 0, 1 from ";
        const sched_param highest{99};
        sched_setscheduler(0, SCHED_FIFO, &highest);
        for (const auto& [cpu, settings] :
             {std::pair<int, std::string>(0, before), {1025, before}, {2, bound + "1"}, {1, bound + "0"}}) {
            ProcessServiceBase::SetupCurrentProcess(cpu);
            EXPECT_EQ(OwnSettings(), settings);
        }
    }));
    EXPECT_EQ(ProcessServiceBase::GetCurrentName(), std::filesystem::read_symlink("/proc/self/exe").string());
    ExpectFailures({{"readlink", &ProcessServiceBase::GetCurrentName, ""}});
}

}  // namespace
