#include "Scenes.h"

#include <Kel/Core/Exception.h>
#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/ISignalHandlerService.h>
#include <Kel/System/Ve/ITraceControllerService.h>
#include <Kel/System/Ve/Internal/Linux/SignalHandlerService.h>

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <stdexcept>
#include <string>

using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Internal::ServiceFactory;
using Kel::System::Ve::Internal::Linux::SignalHandlerService;

// Part of the program's symbols, so that a stack trace shows its name.
[[gnu::noinline]] void WriteTo(int* address) { *address = 1; }

namespace {

int reportChannel = -1;

// Known at run time only: compilers leave out what cannot go well.
int* volatile nowhere = nullptr;

// Runs in the process that has crashed: does as little as it can, and ends it.
void WriteReportAndEnd(const Kel::BasicString& report) {
    const ssize_t written = write(reportChannel, report.data(), report.size());
    _exit(written == static_cast<ssize_t>(report.size()) ? 3 : 4);
}

}  // namespace

void ShowCrashReport(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Crash reports: what a program says last");
    int channel[2];
    if (pipe(channel) != 0) {
        narrator.Check(false, "a pipe is made");
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        reportChannel = channel[1];
        Own(factory.CreateSignalHandler())->Setup(nullptr, &WriteReportAndEnd);
        WriteTo(nowhere);
        _exit(0);
    }
    close(channel[1]);
    std::string report;
    std::array<char, 1024> part;
    for (ssize_t count = 1; count > 0;) {
        count = read(channel[0], part.data(), part.size());
        report.append(part.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    close(channel[0]);
    int status = -1;
    narrator.Check(child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 3,
                   "a child process has written through a null pointer. It says:");
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        narrator.Say("   " + line.substr(0, line.find('\r')));
    }
    narrator.Check(report.find("   at: WriteTo(int*)\r\n") != std::string::npos, "and names the function that did it");
}

void ShowCrashAsException(Narrator& narrator) {
    narrator.Scene("Crashes as exceptions: a null-pointer write is caught");
    struct sigaction previous {};
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = &SignalHandlerService::ThrowHandler;
    SignalHandlerService::pThrowExceptionCallback = [] {
        throw Kel::Exception("signal {0}", SignalHandlerService::exceptionCode);
    };
    sigaction(SIGSEGV, &action, &previous);
    std::string caught;
    try {
        // Through a pointer: clang sees that the function throws nothing, and would leave the exception no way out.
        void (*volatile write)(int*) = &WriteTo;
        write(nowhere);
    } catch (const Kel::Exception& exception) {
        caught = exception.GetMessage();
    }
    sigaction(SIGSEGV, &previous, nullptr);
    SignalHandlerService::pThrowExceptionCallback = nullptr;
    narrator.Check(caught == "signal " + std::to_string(SIGSEGV), "the program goes on, and knows why: " + caught);
}

void ShowTraceController(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Tracer sessions: what the session daemon knows");
    const auto controller = Own(factory.CreateTraceController());
    if (!controller->IsSessionDaemonAlive()) {
        std::string message;
        try {
            controller->ListSessions();
        } catch (const Kel::Exception& exception) {
            message = exception.GetMessage();
        }
        narrator.Check(!message.empty(), "no session daemon runs: " + message);
        narrator.Say("Install lttng-tools, start one with 'lttng-sessiond --daemonize', create a session with");
        narrator.Say("'lttng create', and run the tour again.");
        return;
    }
    const auto sessions = controller->ListSessions();
    narrator.Say("A session daemon runs, with " + std::to_string(sessions.size()) + " sessions.");
    for (const Kel::BasicString& session : sessions) {
        narrator.Say(session + (controller->IsSessionEnabled(session) ? ": started" : ": not started") +
                     (controller->IsSessionInSnapshotMode(session) ? ", in snapshot mode" : ""));
        for (const Kel::BasicString& output : controller->ListSessionOutputs(session)) {
            narrator.Say("   writes to " + output);
        }
    }
}
