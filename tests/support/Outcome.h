#pragma once

#include "Interposition.h"

#include <Kel/System/Ve/IServiceObject.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

/// Something to be done whose outcome is told as text: "done" or the result; of an exception, type and message, as in
/// "VeException: Lock: Mutex could not be locked: Invalid argument". A service object that it returns is deleted.
class Operation {
public:
    template <typename Function, typename = std::enable_if_t<std::is_invocable_v<Function>>>
    Operation(Function function) : outcome([function] { return Run(function); }) {}

    std::string Outcome() const;

private:
    template <typename Function>
    static std::string Run(const Function& function) {
        using Result = std::invoke_result_t<Function>;
        if constexpr (std::is_void_v<Result>) {
            function();
            return "done";
        } else if constexpr (std::is_same_v<Result, bool>) {
            return function() ? "true" : "false";
        } else if constexpr (std::is_arithmetic_v<Result> || std::is_enum_v<Result>) {
            return std::to_string(static_cast<long>(function()));
        } else if constexpr (std::is_pointer_v<Result>) {
            const std::unique_ptr<const Kel::System::Ve::IServiceObject> made(function());
            return made ? made->GetServiceName() : "null";
        } else {
            return function();
        }
    }

    std::function<std::string()> outcome;
};

/// What an operation comes to when one call that it makes fails, as `FailingCall` has it.
struct Failure {
    const char* call;
    Operation operation;
    /// Begins with "ends the process: " when it does, with the exception that nobody has caught.
    std::string outcome;
    int skip = 0;
    int errorNumber = 0;
};

/// Fails each call in turn; expects the outcome, and no service object and no descriptor more than before.
void ExpectFailures(const std::vector<Failure>& failures);

/// Succeeds when `operation` comes to `outcome`.
testing::AssertionResult ComesTo(const Operation& operation, const std::string& outcome);

/// Fails each allocation that `operation` makes in turn; expects `std::bad_alloc`, and nothing more than before.
void ExpectBadAlloc(const std::function<void()>& operation);
