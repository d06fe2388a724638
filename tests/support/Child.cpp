#include "Child.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <system_error>

// The thread sanitizer would end a child that starts threads when a detached thread of an earlier test has not quite
// ended, and does not take the crash handler's report for the last thing that a process does.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that it looks for.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0:report_signal_unsafe=0"; }

// It does not see the locks that the loader and the C library have inside: what one thread frees there and another
// gets, or another reads while it has the library open, counts as a race. Named by their files, for the names of the
// functions are with the debugging symbols, which a machine need not have.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that it looks for.
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:/ld-linux\ncalled_from_lib:/libc.so\n"; }

void BecomeOrdinaryUser(const std::string& path) {
    constexpr uid_t nobody = 65534;
    if (geteuid() == 0 &&
        ((!path.empty() && chown(path.c_str(), nobody, nobody) != 0) || setgid(nobody) != 0 || setuid(nobody) != 0)) {
        throw std::system_error(errno, std::generic_category(), "setuid");
    }
}

void EndChild(int exitCode) {
#ifdef KEL_TESTS_COVER
    exit(exitCode);
#else
    _exit(exitCode);
#endif
}

Child::Child(const std::function<int()>& function) : processId(fork()) {
    if (processId < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (processId == 0) {
        // Children that are meant to crash leave no core files.
        const rlimit noCore{0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        int exitCode = EXIT_FAILURE;
        try {
            exitCode = function();
        } catch (const std::exception& exception) {
            std::cerr << "child: " << exception.what() << std::endl;
        }
        EndChild(exitCode);
    }
}

int Child::Kill() {
    kill(processId, SIGKILL);
    return Wait();
}

int Child::Wait() {
    int status = 0;
    waitpid(processId, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

testing::AssertionResult SucceedsInChild(const std::function<void()>& test) {
    Child child([&] {
        test();
        return testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS;
    });
    const int exitCode = child.Wait();
    return (exitCode == EXIT_SUCCESS ? testing::AssertionSuccess() : testing::AssertionFailure())
           << "the child ended with " << exitCode;
}
