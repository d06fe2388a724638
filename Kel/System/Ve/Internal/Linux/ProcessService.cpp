#include <Kel/System/Ve/Internal/Linux/ProcessService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/FileServiceBase.h>

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>

// The C library's clone, by the name that the thread sanitizer does not intercept: it would take the child for a copy
// of the process, as fork makes it, and change its own records of this one.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the C library's.
extern "C" int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...);

namespace Kel::System::Ve::Internal {

void ProcessServiceBase::SetupCurrentProcess(int cpu) { Linux::ProcessService::SetupCurrentProcess(cpu); }

BasicString ProcessServiceBase::GetCurrentName() { return Linux::ProcessService::GetCurrentName(); }

}  // namespace Kel::System::Ve::Internal

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

namespace {

// What the kernel knows of a signal's handling, of which the handler comes first. It is asked itself: the thread
// sanitizer keeps a record of what the C library's sigaction is called for, and would take the child's calls for this
// process's.
using KernelAction = std::array<unsigned long, 8>;
constexpr std::size_t kernelMaskSize = NSIG / 8;

bool HasHandler(int signal) {
    KernelAction action{};
    return syscall(SYS_rt_sigaction, signal, nullptr, action.data(), kernelMaskSize) == 0 &&
           action[0] != reinterpret_cast<std::uintptr_t>(SIG_IGN) &&
           action[0] != reinterpret_cast<std::uintptr_t>(SIG_DFL);
}

sigset_t SignalsWithHandler() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal = 1; signal < NSIG; ++signal) {
        if (HasHandler(signal)) {
            sigaddset(&signals, signal);
        }
    }
    return signals;
}

// As the execution of a program does.
void RemoveHandlers() {
    const KernelAction byDefault{};
    for (int signal = 1; signal < NSIG; ++signal) {
        if (HasHandler(signal)) {
            syscall(SYS_rt_sigaction, signal, byDefault.data(), nullptr, kernelMaskSize);
        }
    }
}

}  // namespace

// What the child is to do.
struct ProcessService::Program {
    const char* directory;
    char* const* arguments;
    bool isDaemon;
    sigset_t signalMask;
};

ProcessService::ProcessService() : ServiceObjectBase("ProcessService", ServiceType::Process, true) {}

void ProcessService::Start(const BasicString& workingDirectory, const BasicString& executable,
                           const BasicString& parameters) {
    Start(workingDirectory, executable, parameters, false);
}

void ProcessService::StartDaemon(const BasicString& workingDirectory, const BasicString& executable,
                                 const BasicString& parameters) {
    Start(workingDirectory, executable, parameters, true);
}

void ProcessService::Start(const BasicString& workingDirectory, const BasicString& executable,
                           const BasicString& parameters, bool asDaemon) {
    EnsureHasNotStarted();
    const BasicString path = GetAbsolutePath(executable);
    EnsureExecutableExists(path);
    BasicString splitParameters = parameters;
    const std::vector<char*> arguments = ParseParameters(path, splitParameters);
    Program program{workingDirectory.c_str(), arguments.data(), asDaemon, {}};

    // The child's own: for a script that names no interpreter, execvp makes a copy of the arguments on it. The rest is
    // for calls, as many bytes as posix_spawn has for them.
    const std::size_t stackSize = (arguments.size() * sizeof(char*) + 32768) / sizeof(std::max_align_t);
    const std::unique_ptr<std::max_align_t[]> stack(new std::max_align_t[stackSize]);

    // A handler of this process must not run in the child. Other signals stay deliverable: while the child waits for
    // the storage of its program, they can end this process.
    const sigset_t handled = SignalsWithHandler();
    pthread_sigmask(SIG_BLOCK, &handled, &program.signalMask);
    // As fork, but the child uses this process's memory, and this thread waits, until the program is executed. To copy
    // the page tables of a large process takes tens of milliseconds, and then each page that another thread writes is
    // copied: a timer beside it was late by as much.
    processId = __clone(&ExecuteProgram, stack.get() + stackSize, CLONE_VM | CLONE_VFORK | SIGCHLD, &program);
    pthread_sigmask(SIG_SETMASK, &program.signalMask, nullptr);
}

// The thread sanitizer would wait for the end of this function, to which a program that is executed does not come.
__attribute__((no_sanitize("thread"))) int ProcessService::ExecuteProgram(void* argument) {
    const auto& program = *static_cast<const Program*>(argument);
    RemoveHandlers();
    pthread_sigmask(SIG_SETMASK, &program.signalMask, nullptr);
    if (program.isDaemon) {
        Daemonize();
    }
    if (ChangeWorkingDirectory(program.directory)) {
        execvp(program.arguments[0], program.arguments);
    }
    // The child's exit code.
    return 1;
}

void ProcessService::StartBlocking(const BasicString& workingDirectory, const BasicString& executable,
                                   const BasicString& parameters, int& exitCode) {
    static_cast<IProcessService*>(this)->Start(workingDirectory, executable, parameters);
    // Never for 0 or -1: these would be other objects' children.
    if (processId <= 0) {
        return;
    }
    int status = 0;
    pid_t result = 0;
    do {
        result = waitpid(processId, &status, 0);
    } while (result == -1 && errno == EINTR);
    if (result != -1) {
        exitCode = WEXITSTATUS(status);
    }
    processId = 0;
}

bool ProcessService::HasExited() const {
    const CancellationDisabled disabled;
    if (processId <= 0) {
        return true;
    }
    int status = 0;
    const pid_t result = waitpid(processId, &status, WNOHANG);
    if (result != 0) {
        processId = 0;
    }
    return result == -1 || status > 0;
}

void ProcessService::Kill() {
    const CancellationDisabled disabled;
    siginfo_t information{};
    // Only while it is this process's child, ended or not: someone else may have waited for it.
    if (processId > 0 && waitid(P_PID, static_cast<id_t>(processId), &information, WEXITED | WNOHANG | WNOWAIT) == 0) {
        kill(processId, SIGKILL);
    }
    processId = 0;
}

bool ProcessService::IsPathRelative(const BasicString& path) {
    return boost::filesystem::path(path).root_directory().empty();
}

BasicString ProcessService::GetAbsolutePath(const BasicString& path) {
    if (!IsPathRelative(path)) {
        return path;
    }
    boost::system::error_code outOfReach;
    return (boost::filesystem::current_path(outOfReach) / boost::filesystem::path(path)).string();
}

std::vector<char*> ProcessService::ParseParameters(const BasicString& executable, BasicString& parameters) {
    constexpr std::size_t places = 1024;
    std::vector<char*> arguments(places);
    std::size_t count = 0;
    arguments[count++] = const_cast<char*>(executable.c_str());
    bool isBehindSeparator = true;
    for (char& character : parameters) {
        if (character == ' ' || character == '\t' || character == '\n') {
            character = '\0';
        }
        if (character != '\0' && isBehindSeparator) {
            arguments[count++] = &character;
            if (count == arguments.size()) {
                // There is always a null behind the last one.
                arguments.push_back(nullptr);
            }
        }
        isBehindSeparator = character == '\0';
    }
    return arguments;
}

void ProcessService::EnsureHasNotStarted() const {
    if (!static_cast<const IProcessService*>(this)->HasExited()) {
        throw VeException("{0}: Process already started.", __func__);
    }
}

void ProcessService::EnsureExecutableExists(const BasicString& path) {
    // A relative one, from a folder that is out of reach, would be looked for in others.
    if (IsPathRelative(path) || !FileServiceBase::Exists(path)) {
        throw VeException("{0}: Could not find executable {1}.", __func__, path);
    }
}

bool ProcessService::ChangeWorkingDirectory(const char* path) { return *path == '\0' || chdir(path) == 0; }

void ProcessService::Daemonize() { setsid(); }

void ProcessService::SetupCurrentProcess(int cpu) {
    const sched_param normal{};
    sched_setscheduler(getpid(), SCHED_OTHER, &normal);
    if (cpu < 1) {
        return;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    // Of a number beyond the set, nothing is entered.
    CPU_SET(static_cast<unsigned int>(cpu - 1), &set);
    sched_setaffinity(getpid(), sizeof set, &set);
}

BasicString ProcessService::GetCurrentName() {
    char path[1024];
    // What it cuts has no terminating null.
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    return length == -1 ? BasicString() : BasicString(path, static_cast<std::size_t>(length));
}

}  // namespace Kel::System::Ve::Internal::Linux
