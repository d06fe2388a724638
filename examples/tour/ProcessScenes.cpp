#include "Scenes.h"

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/IProcessService.h>
#include <Kel/System/Ve/ISharedLibraryService.h>
#include <Kel/System/Ve/Internal/ProcessServiceBase.h>
#include <Kel/System/Ve/Internal/SharedLibraryServiceBase.h>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Internal::ProcessServiceBase;
using Kel::System::Ve::Internal::ServiceFactory;
using Kel::System::Ve::Internal::SharedLibraryServiceBase;

namespace {

// Waits for the end of some child, which stays to be waited for.
siginfo_t EndedChild() {
    siginfo_t information{};
    waitid(P_ALL, 0, &information, WEXITED | WNOWAIT);
    return information;
}

// What the kernel says of the memory that this process has locked.
std::string LockedMemory() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line) && line.rfind("VmLck:", 0) != 0) {
    }
    return line;
}

}  // namespace

void ShowProcesses(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Processes: started, watched, ended");
    const auto process = Own(factory.CreateProcess());
    narrator.Check(process->HasExited(), "before the start there is nothing that runs");
    process->Start("/", "/bin/sleep", "1000");
    narrator.Check(!process->HasExited(), "sleep 1000 runs");
    process->Kill();
    const siginfo_t ended = EndedChild();
    narrator.Check(ended.si_code == CLD_KILLED && ended.si_status == SIGKILL && process->HasExited(),
                   "Kill has ended process " + std::to_string(ended.si_pid));
    waitpid(ended.si_pid, nullptr, 0);

    int exitCode = -1;
    process->StartBlocking("", "/bin/sh", "-c exit", exitCode);
    narrator.Check(exitCode == 0, "sh -c exit has run to its end, with exit code 0");
    process->StartBlocking("/nowhere", "/bin/sh", "", exitCode);
    narrator.Check(exitCode == 1, "in a directory that does not exist it ends with exit code 1");

    process->StartDaemon("/", "/bin/sleep", "1000");
    const auto other = Own(factory.CreateProcess());
    narrator.Say("A daemon runs in a session of its own, where no terminal's hang-up reaches it.");
    narrator.Check(!process->HasExited() && other->HasExited(), "other objects know nothing of it");
    process->Kill();
    waitpid(EndedChild().si_pid, nullptr, 0);
}

void ShowSharedLibrary(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Shared libraries: loaded, and kept in memory");
    narrator.Say("This library is " + SharedLibraryServiceBase::GetPathOfVeLibrary());
    const auto library = Own(factory.CreateSharedLibrary());
    const Kel::BasicString program = ProcessServiceBase::GetCurrentName();
    const std::string before = LockedMemory();
    library->Load(program.substr(0, program.rfind('/')) + "/libtour-plugin.so");
    auto* const average = reinterpret_cast<int (*)(int, int)>(library->GetFunctionAddress("TourAverage"));
    narrator.Check(average != nullptr && average(4, 6) == 5, "a function of another one, loaded just now, is called");
    narrator.Check(library->GetFunctionAddress("NoSuchFunction") == nullptr,
                   "a function that it does not have is null");
    if (LockedMemory() != before) {
        narrator.Say("It is locked in memory, so that no call into it waits for a disk. The kernel says: " +
                     LockedMemory());
    } else {
        narrator.Say("Its memory could not be locked. Run the tour as root, or allow the user a limit, such as");
        narrator.Say("'@realtime - memlock unlimited' in /etc/security/limits.conf.");
    }
    library->Unload();
    narrator.Check(LockedMemory() == before, "unloaded, it takes no locked memory any more");
}
