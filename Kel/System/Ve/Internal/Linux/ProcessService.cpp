#include <Kel/System/Ve/Internal/Linux/ProcessService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/FileServiceBase.h>

#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <array>
#include <cerrno>
#include <cstdint>

namespace Kel::System::Ve::Internal {

void ProcessServiceBase::SetupCurrentProcess(int cpu) { Linux::ProcessService::SetupCurrentProcess(cpu); }

BasicString ProcessServiceBase::GetCurrentName() { return Linux::ProcessService::GetCurrentName(); }

}  // namespace Kel::System::Ve::Internal

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

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
    // No handler of this process's may run in the child, in the memory that they share.
    sigset_t allSignals;
    sigset_t signalMask;
    sigfillset(&allSignals);
    pthread_sigmask(SIG_SETMASK, &allSignals, &signalMask);
    // As fork, but the child borrows the memory, and this thread, until it executes the program. To copy the page
    // tables of a large process takes tens of milliseconds, and then each page that another thread writes is copied:
    // a timer beside it was late by as much.
    // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.vfork): the child only does what ExecuteProgram does.
    const pid_t child = vfork();
    if (child == 0) {
        // NOLINTNEXTLINE(clang-analyzer-unix.Vfork): it never returns, and changes nothing that the parent still uses.
        ExecuteProgram(workingDirectory.c_str(), arguments.data(), asDaemon, signalMask);
    }
    processId = child;
    pthread_sigmask(SIG_SETMASK, &signalMask, nullptr);
}

void ProcessService::ExecuteProgram(const char* directory, char* const* arguments, bool asDaemon,
                                    const sigset_t& signalMask) {
    // The execution does it, too, but signals are let in before that. By the kernel's own call: whoever stands in for
    // the C library's and takes notes would note it for the parent.
    for (int signal = 1; signal < NSIG; ++signal) {
        // The handler is the first word.
        std::array<unsigned long, 8> action{};
        constexpr std::size_t maskSize = NSIG / 8;
        if (syscall(SYS_rt_sigaction, signal, nullptr, action.data(), maskSize) == 0 &&
            action[0] != reinterpret_cast<std::uintptr_t>(SIG_IGN) &&
            action[0] != reinterpret_cast<std::uintptr_t>(SIG_DFL)) {
            action = {};
            syscall(SYS_rt_sigaction, signal, action.data(), nullptr, maskSize);
        }
    }
    if (asDaemon) {
        Daemonize();
    }
    ChangeWorkingDirectory(directory);
    pthread_sigmask(SIG_SETMASK, &signalMask, nullptr);
    execvp(arguments[0], arguments);
    _exit(1);
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

void ProcessService::ChangeWorkingDirectory(const char* path) {
    if (*path != '\0' && chdir(path) != 0) {
        _exit(1);
    }
}

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
