#include "support/TemporaryFolder.h"
#include "support/Test.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <iterator>

namespace {

class ProcessTest : public FactoryTest {
protected:
    ProcessTest() { chmod((folder / "").c_str(), 0755); }

    std::unique_ptr<IProcessService> Make() { return std::unique_ptr<IProcessService>(factory->CreateProcess()); }

    /// A program of the shell's; what it writes is in `Output`.
    BasicString Program(const std::string& name, const std::string& text) const {
        BasicString path = folder / name;
        std::ofstream(path) << "#!/bin/sh\nexec >" << folder / "output"
                            << "\n"
                            << text << "\n";
        chmod(path.c_str(), 0755);
        return path;
    }

    std::string Output() const {
        std::ifstream file(folder / "output");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /// Runs a program to its end.
    int ExitCodeOf(const BasicString& program, const BasicString& parameters = "", const BasicString& directory = "") {
        int exitCode = -1;
        Make()->StartBlocking(directory, program, parameters, exitCode);
        return exitCode;
    }

    /// A program that goes on until a byte is written to the FIFO.
    BasicString WaitingProgram(const std::string& fifo, const std::string& atTheEnd) const {
        EXPECT_EQ(mkfifo((folder / fifo).c_str(), 0600), 0);
        return Program("waiting-" + fifo, "read line <" + folder / fifo + "\n" + atTheEnd);
    }

    void EndWaiting(const std::string& fifo) const { std::ofstream(folder / fifo) << "go on\n"; }

    /// Waits for the end of some child, and leaves it to be waited for.
    static siginfo_t EndedChild() {
        siginfo_t information{};
        EXPECT_EQ(waitid(P_ALL, 0, &information, WEXITED | WNOWAIT), 0);
        return information;
    }

    const TemporaryFolder folder;
    const std::string alreadyStarted = "EnsureHasNotStarted: Process already started.";
};

bool Signals(const std::function<void()>& operation) { return FailingCall::HappensIn(operation, "kill"); }

TEST_F(ProcessTest, ArgumentsAreSplitAtBlanksTabsAndLineFeeds) {
    const BasicString program = Program("arguments", "echo \"$0\"; for a; do printf '[%s]' \"$a\"; done");
    const struct {
        BasicString parameters;
        std::string seen;
    } table[] = {{"", ""},
                 {"  -a\t-b\n-c ", "[-a][-b][-c]"},
                 {" \t\n", ""},
                 {"\"a b\" 'c' d\\ e", "[\"a][b\"]['c'][d\\][e]"},
                 {"a\rb\vc", "[a\rb\vc]"},
                 {std::string("a\0b", 3), "[a][b]"}};
    for (const auto& row : table) {
        EXPECT_EQ(ExitCodeOf(program, row.parameters), 0);
        EXPECT_EQ(Output(), program + "\n" + row.seen);
    }
    const BasicString count = Program("count", "echo $#");
    for (const int arguments : {1021, 1022, 1023, 1024, 1500}) {
        BasicString parameters;
        for (int i = 0; i < arguments; ++i) {
            parameters += "x ";
        }
        EXPECT_EQ(ExitCodeOf(count, parameters), 0);
        EXPECT_EQ(Output(), std::to_string(arguments) + "\n");
    }
}

TEST_F(ProcessTest, ExitCodeIsThatOfTheProgram) {
    EXPECT_EQ(ExitCodeOf(Program("three", "exit 3")), 3);
    EXPECT_EQ(ExitCodeOf(Program("killed", "kill -9 $$")), 0);
    EXPECT_EQ(ExitCodeOf(Program("no-directory", ""), "", folder / "none"), 1);
    const BasicString noProgram = folder / "no-program";
    std::ofstream(noProgram) << "";
    EXPECT_EQ(ExitCodeOf(noProgram), 1);
    EXPECT_EQ(ExitCodeOf(Program("where", "pwd"), "", "/"), 0);
    EXPECT_EQ(Output(), "/\n");
    {
        const FailingCall interrupted("waitpid", -1, EINTR);
        EXPECT_EQ(ExitCodeOf(folder / "three"), 3);
    }
    const FailingCall someoneElse("waitpid", -1, ECHILD);
    EXPECT_EQ(ExitCodeOf(folder / "three"), -1);
    EXPECT_GT(waitpid(EndedChild().si_pid, nullptr, 0), 0);
}

TEST_F(ProcessTest, RelativePathsStartInTheWorkingDirectory) {
    Child child([this] {
        EXPECT_EQ(chdir((folder / "").c_str()), 0);
        Program("tool", "pwd");
        EXPECT_EQ(ExitCodeOf("./tool", "", "/"), 0);
        EXPECT_EQ(Output(), "/\n");
        EXPECT_TRUE(
            Throws<VeException>([this] { ExitCodeOf("bin/none"); },
                                "EnsureExecutableExists: Could not find executable " + folder / "bin/none" + "."));
        // PATH is not searched.
        EXPECT_TRUE(Throws<VeException>([this] { ExitCodeOf("sh"); },
                                        "EnsureExecutableExists: Could not find executable " + folder / "sh" + "."));
        EXPECT_EQ(mkdir("gone", 0700) + chdir("gone") + rmdir((folder / "gone").c_str()), 0);
        // Not what PATH has by that name.
        EXPECT_TRUE(
            Throws<VeException>([this] { ExitCodeOf("sh"); }, "EnsureExecutableExists: Could not find executable sh."));
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_TRUE(ProcessService::IsPathRelative("a/b") && ProcessService::IsPathRelative(""));
    EXPECT_FALSE(ProcessService::IsPathRelative("/a"));
}

TEST_F(ProcessTest, PollingTellsTheEndOfItsOwnChildOnly) {
    const auto first = Make();
    const auto second = Make();
    EXPECT_TRUE(first->HasExited());
    const BasicString program = WaitingProgram("first", "exit 0");
    first->Start("", program, "");
    second->Start("", WaitingProgram("second", "exit 7"), "");
    EXPECT_FALSE(first->HasExited());
    EXPECT_TRUE(Throws<VeException>([&] { first->Start("", program, ""); }, alreadyStarted));

    EndWaiting("second");
    EndedChild();
    EXPECT_FALSE(first->HasExited());
    EXPECT_TRUE(Make()->HasExited());
    EXPECT_TRUE(second->HasExited());
    EXPECT_TRUE(second->HasExited());
    // Its number is not its own any more.
    EXPECT_FALSE(Signals([&] { second->Kill(); }));

    EndWaiting("first");
    EndedChild();
    // The one that finds it ended well does not say so yet.
    EXPECT_TRUE(Throws<VeException>([&] { first->StartDaemon("", program, ""); }, alreadyStarted));
    EXPECT_TRUE(first->HasExited());
    first->Start("", Program("again", ""), "");
    EndedChild();
    EXPECT_FALSE(first->HasExited());
    EXPECT_TRUE(first->HasExited());
}

TEST_F(ProcessTest, KillEndsWhatIgnoresSignals) {
    const auto process = Make();
    process->Start("", Program("stubborn", "trap '' TERM INT HUP\nwhile :; do :; done"), "");
    EXPECT_TRUE(Signals([&] { process->Kill(); }));
    const siginfo_t ended = EndedChild();
    EXPECT_EQ(ended.si_code, CLD_KILLED);
    EXPECT_EQ(ended.si_status, SIGKILL);
    EXPECT_TRUE(process->HasExited());
    EXPECT_FALSE(Signals([&] { process->Kill(); }));
    EXPECT_EQ(waitpid(ended.si_pid, nullptr, 0), ended.si_pid);
    // One that has ended is left to be waited for.
    const BasicString program = Program("short", "");
    process->Start("", program, "");
    pid_t other = EndedChild().si_pid;
    process->Kill();
    EXPECT_EQ(waitpid(other, nullptr, 0), other);
    // Someone else has waited for it.
    for (const bool polls : {false, true}) {
        process->Start("", program, "");
        other = EndedChild().si_pid;
        EXPECT_EQ(waitpid(other, nullptr, 0), other);
        EXPECT_TRUE(!polls || process->HasExited());
        EXPECT_FALSE(Signals([&] { process->Kill(); }));
    }
}

TEST_F(ProcessTest, WithoutAChildNobodyIsTouched) {
    Child child([this] {
        // Signalled by mistake, only this group would be.
        setpgid(0, 0);
        const auto sibling = Make();
        sibling->Start("", Program("three", "exit 3"), "");
        EndedChild();
        const auto never = Make();
        never->Kill();
        EXPECT_TRUE(never->HasExited());

        const BasicString program = Program("other", "");
        // Limits do not hold for root.
        BecomeOrdinaryUser();
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        const auto failed = Make();
        int exitCode = 99;
        failed->StartBlocking("", program, "", exitCode);
        EXPECT_EQ(exitCode, 99);
        EXPECT_TRUE(failed->HasExited());
        EXPECT_FALSE(Signals([&] { failed->Kill(); }));
        EXPECT_EQ(EndedChild().si_status, 3);
        EXPECT_TRUE(sibling->HasExited());
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.Wait(), 0);
}

TEST_F(ProcessTest, DaemonHasASessionOfItsOwn) {
    const BasicString program =
        Program("session", "read id name state parent group session rest </proc/$$/stat; echo $((session == $$))");
    const auto process = Make();
    process->StartDaemon("", program, "");
    EndedChild();
    EXPECT_EQ(Output(), "1\n");
    EXPECT_FALSE(process->HasExited());
    EXPECT_EQ(ExitCodeOf(program), 0);
    EXPECT_EQ(Output(), "0\n");
}

TEST_F(ProcessTest, CurrentProcessIsSetUpAndKnowsItsName) {
    Child child([] {
        const sched_param highest{99};
        sched_setscheduler(0, SCHED_FIFO, &highest);
        cpu_set_t before;
        cpu_set_t after;
        sched_getaffinity(0, sizeof before, &before);
        for (const int cpu : {0, -1, 1025, 1024}) {
            ProcessServiceBase::SetupCurrentProcess(cpu);
            sched_getaffinity(0, sizeof after, &after);
            EXPECT_TRUE(CPU_EQUAL(&before, &after)) << cpu;
        }
        EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
        for (const int cpu : {2, 1}) {
            ProcessServiceBase::SetupCurrentProcess(cpu);
            sched_getaffinity(0, sizeof after, &after);
            EXPECT_EQ(CPU_COUNT(&after), 1);
            EXPECT_TRUE(CPU_ISSET(cpu - 1, &after));
        }
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    const std::string name = ProcessServiceBase::GetCurrentName();
    EXPECT_EQ(name.substr(name.rfind('/')), "/ve-tests");
    EXPECT_TRUE(FileServiceBase::Exists(name));
}

}  // namespace
