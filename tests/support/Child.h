#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <string>

/// Ends a child: at once, without what its parent would do at its end; unless that writes what the tests cover.
[[noreturn]] void EndChild(int exitCode);

/// Gives up the rights of root, if this process has them, for those of an ordinary user, who gets `path`, unless empty.
void BecomeOrdinaryUser(const std::string& path = "");

/// A child process that runs a function with the parent's memory as it was, and ends with its result as the exit code.
class Child {
public:
    explicit Child(const std::function<int()>& function);

    /// Ends the child by SIGKILL, unless it has ended; the same as waiting for it otherwise.
    int Kill();

    /// Waits for the end of the child. Returns its exit code, or 128 and the number of the signal that ended it.
    int Wait();

private:
    const pid_t processId;
};

/// Runs `test` in a child, which succeeds when it comes to its end and no assertion has failed.
testing::AssertionResult SucceedsInChild(const std::function<void()>& test);
