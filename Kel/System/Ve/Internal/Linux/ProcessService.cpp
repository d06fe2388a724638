#include <Kel/System/Ve/Internal/Linux/ProcessService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/FileServiceBase.h>

#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <cerrno>

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
    const char* const directory = workingDirectory.c_str();
    processId = fork();
    if (processId == 0) {
        if (asDaemon) {
            Daemonize();
        }
        ChangeWorkingDirectory(directory);
        execvp(arguments[0], arguments.data());
        _exit(1);
    }
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
