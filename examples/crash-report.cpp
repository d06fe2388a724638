// A crash report that survives the process: what has to be there when it crashes is made ready at the start.

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Adapters/Runtime.h>
#include <Kel/System/Ve/Internal/FileServiceBase.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <string>

using namespace Kel::System::Ve;
using Adapters::Own;
using Internal::ServiceFactory;

// Not in an unnamed namespace: what the program exports has a name in the report.
// NOLINTNEXTLINE(clang-analyzer-core.NullDereference): that is what it is for.
[[gnu::noinline]] void MoveAxis(int* volatile position) { *position = 1; }

namespace {

constexpr int crashed = 70;
int reportFile = -1;

/// Runs in the process that has crashed, on the thread that has: does as little as it can, and ends the process.
void KeepReport(const Kel::BasicString& report) {
    const ssize_t written = write(reportFile, report.data(), report.size());
    fsync(reportFile);
    _exit(written == static_cast<ssize_t>(report.size()) ? crashed : 1);
}

/// The program that is to be watched.
[[noreturn]] void RunMachine(ServiceFactory& factory, const Kel::BasicString& path) {
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    reportFile = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    // Before threads are started. The handler stays when the object is deleted.
    Own(factory.CreateSignalHandler())->Setup(nullptr, &KeepReport);
    MoveAxis(nullptr);
    _exit(0);
}

std::string ReadFile(ServiceFactory& factory, const Kel::BasicString& path) {
    const auto file =
        Own(factory.CreateFile(path, IFileService::FileMode::Open, IFileService::FileAccess::Read, false));
    unsigned char bytes[8192];
    return std::string(bytes, bytes + file->Read(bytes, 0, sizeof bytes));
}

bool Run(ServiceFactory& factory) {
    const Kel::BasicString path = "/tmp/kel-crash-report-" + std::to_string(getpid());
    const pid_t child = fork();
    if (child == 0) {
        RunMachine(factory, path);
    }
    int status = 0;
    const bool hasCrashed =
        child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == crashed;
    const std::string report = ReadFile(factory, path);
    std::cout << report;
    Internal::FileServiceBase::Delete(path);
    return hasCrashed && report.rfind("Signal SIGSEGV occured.", 0) == 0 &&
           report.find("   at: MoveAxis(int*)\r\n") != std::string::npos;
}

}  // namespace

int main() {
    const Adapters::Runtime runtime;
    return Run(*runtime) ? 0 : 1;
}
