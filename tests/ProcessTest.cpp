#include "support/Test.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>

namespace {

class ProcessTest : public FactoryTest {
protected:
    ProcessTest() { chmod((folder / "").c_str(), 0755); }

    std::unique_ptr<IProcessService> Make() { return Own(factory->CreateProcess()); }

    /// A file that may be run.
    BasicString Executable(const std::string& name, const std::string& text) const {
        BasicString path = folder.Write(name, text);
        chmod(path.c_str(), 0755);
        return path;
    }

    /// A program of the shell's; what it writes is in `Output`.
    BasicString Program(const std::string& name, const std::string& text) const {
        return Executable(name, "#!/bin/sh\nexec >" + folder / "output" + "\n" + text + "\n");
    }

    std::string Output() const { return folder.Read("output"); }

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

    /// Waits for the end of some child, and leaves it to be waited for.
    static siginfo_t EndedChild() {
        siginfo_t information{};
        EXPECT_EQ(waitid(P_ALL, 0, &information, WEXITED | WNOWAIT), 0);
        return information;
    }

    const TemporaryFolder folder;
    const std::string alreadyStarted = "VeException: EnsureHasNotStarted: Process already started.";
};

// Whether `operation` sends a signal.
bool Signals(const std::function<void()>& operation) { return !CallsOf("kill", operation).empty(); }

TEST_F(ProcessTest, ArgumentsAreSplitAtBlanksTabsAndLineFeeds) {
    const BasicString program = Program("arguments", "echo \"$0\"; for a; do printf '[%s]' \"$a\"; done");
    for (const auto& [parameters, seen] : {std::pair<BasicString, std::string>("", ""),
                                           {"  -a\t-b\n-c ", "[-a][-b][-c]"},
                                           {" \t\n", ""},
                                           {"\"a b\" 'c' d\\ e", "[\"a][b\"]['c'][d\\][e]"},
                                           {"a\rb\vc", "[a\rb\vc]"},
                                           {std::string("a\0b", 3), "[a][b]"}}) {
        EXPECT_EQ(ExitCodeOf(program, parameters), 0);
        EXPECT_EQ(Output(), program + "\n" + seen);
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
    EXPECT_EQ(ExitCodeOf(Executable("for-the-shell", "exit $1\n"), "4"), 4);
    EXPECT_EQ(ExitCodeOf(folder.Write("no-program", "")), 1);
    EXPECT_EQ(ExitCodeOf(Program("where", "pwd"), "", "/"), 0);
    EXPECT_EQ(Output(), "/\n");
    const auto three = [this] { return ExitCodeOf(folder / "three"); };
    // One that somebody else has waited for is not told.
    ExpectFailures({{"waitpid", three, "3", 0, EINTR}, {"waitpid", three, "-1", 0, ECHILD}});
    EXPECT_GT(waitpid(EndedChild().si_pid, nullptr, 0), 0);
}

// It starts in this process's memory.
TEST_F(ProcessTest, StartLeavesSignalsAndThreadsAsTheyAre) {
    static std::atomic<int> handled{0};
    EXPECT_TRUE(SucceedsInChild([this] {
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR2);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        EXPECT_NE(signal(SIGUSR1, SIG_IGN), SIG_ERR);
        // Not by the shell, which unblocks all.
        EXPECT_EQ(ExitCodeOf("/bin/grep", "-q SigBlk:.0*800$ /proc/self/status"), 0);
        EXPECT_EQ(ExitCodeOf("/bin/grep", "-q SigIgn:.*[2367abef]..$ /proc/self/status"), 0);
        EXPECT_NE(signal(SIGUSR1, [](int) { ++handled; }), SIG_ERR);
        std::atomic<bool> isOver{false};
        std::thread other([&] { WaitUntil([&] { return isOver.load(); }); });
        EXPECT_EQ(ExitCodeOf("/bin/true"), 0);
        EXPECT_EQ(raise(SIGUSR1), 0);
        EXPECT_EQ(handled, 1);
        sigset_t after;
        pthread_sigmask(SIG_SETMASK, nullptr, &after);
        EXPECT_TRUE(sigismember(&after, SIGUSR2) == 1 && sigismember(&after, SIGTERM) == 0);
        std::thread([] {}).join();
        isOver = true;
        other.join();
    }));
}

TEST_F(ProcessTest, ProcessCanBeEndedWhileItStartsAChild) {
    Child child([this] {
        // In a child that cannot get on.
        const Interposition blocked("chdir", [parent = getpid()](const auto& /*arguments*/) {
            kill(parent, SIGTERM);
            WaitUntil([&] { return getppid() != parent; });
            return -1;
        });
        Make()->Start("/", "/bin/true", "");
        return 0;
    });
    EXPECT_EQ(child.Wait(), 128 + SIGTERM);
}

#ifndef __SANITIZE_THREAD__  // It needs larger stacks.
// For a file without "#!", execvp copies the arguments for the shell.
TEST_F(ProcessTest, ChildLeavesTheMemoryBelowTheStackAlone) {
    constexpr std::size_t stackSize = 262144;
    std::vector<char> memory(3 * stackSize, 'x');
    std::function<void()> start = [this] {
        BasicString parameters;
        for (int i = 0; i < 60000; ++i) {
            parameters += "x ";
        }
        EXPECT_EQ(ExitCodeOf(Executable("for-the-shell", "test $# = 60000"), parameters), 0);
    };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, memory.data() + 2 * stackSize, stackSize);
    pthread_t thread{};
    const auto run = [](void* function) -> void* {
        (*static_cast<std::function<void()>*>(function))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &start), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(std::count(memory.begin(), memory.begin() + 2 * stackSize, 'x'), 2 * stackSize);
}
#endif

TEST_F(ProcessTest, RelativePathsStartInTheWorkingDirectory) {
    EXPECT_TRUE(SucceedsInChild([this] {
        const std::string notFound = "VeException: EnsureExecutableExists: Could not find executable ";
        EXPECT_EQ(chdir((folder / "").c_str()), 0);
        Program("tool", "pwd");
        EXPECT_EQ(ExitCodeOf("./tool", "", "/"), 0);
        EXPECT_EQ(Output(), "/\n");
        // PATH is not searched.
        EXPECT_TRUE(ComesTo([this] { ExitCodeOf("sh"); }, notFound + folder / "sh" + "."));
        EXPECT_EQ(mkdir("gone", 0700) + chdir("gone") + rmdir((folder / "gone").c_str()), 0);
        EXPECT_TRUE(ComesTo([this] { ExitCodeOf("sh"); }, notFound + "sh."));
    }));
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
    EXPECT_TRUE(ComesTo([&] { first->Start("", program, ""); }, alreadyStarted));

    folder.Write("second", "go on\n");
    EndedChild();
    EXPECT_FALSE(first->HasExited());
    EXPECT_TRUE(second->HasExited());
    EXPECT_TRUE(second->HasExited());
    // Its number is not its own any more.
    EXPECT_FALSE(Signals([&] { second->Kill(); }));

    folder.Write("first", "go on\n");
    EndedChild();
    // The one that finds it ended well does not say so yet.
    EXPECT_TRUE(ComesTo([&] { first->StartDaemon("", program, ""); }, alreadyStarted));
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
    EXPECT_TRUE(SucceedsInChild([this] {
        // Signalled by mistake, only this group would be.
        setpgid(0, 0);
        const auto sibling = Make();
        sibling->Start("", Program("three", "exit 3"), "");
        EndedChild();
        const auto process = Make();
        process->Kill();
        EXPECT_TRUE(process->HasExited());

        const BasicString program = Program("other", "");
        // Limits do not hold for root.
        BecomeOrdinaryUser();
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        int exitCode = 99;
        process->StartBlocking("", program, "", exitCode);
        EXPECT_EQ(exitCode, 99);
        EXPECT_TRUE(process->HasExited());
        EXPECT_FALSE(Signals([&] { process->Kill(); }));
        EXPECT_EQ(EndedChild().si_status, 3);
        EXPECT_TRUE(sibling->HasExited());
    }));
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
    EXPECT_TRUE(SucceedsInChild([] {
        const std::string before = OwnSettings();
        const std::string ownName = before.substr(0, before.find(','));
        const sched_param highest{99};
        sched_setscheduler(0, SCHED_FIFO, &highest);
        for (const int cpu : {0, -1, 1025, 1024}) {
            ProcessServiceBase::SetupCurrentProcess(cpu);
            EXPECT_EQ(OwnSettings(), before) << cpu;
        }
        for (const int cpu : {2, 1}) {
            ProcessServiceBase::SetupCurrentProcess(cpu);
            EXPECT_EQ(OwnSettings(), ownName + ", normal 0, 1 from " + std::to_string(cpu - 1));
        }
    }));
    const std::string name = ProcessServiceBase::GetCurrentName();
    EXPECT_EQ(name.substr(name.rfind('/')), "/ve-tests");
    EXPECT_TRUE(FileServiceBase::Exists(name));
}

}  // namespace
