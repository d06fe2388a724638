#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/System/Ve/IServiceObject.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

/// Carries out a scenario, step by step. What it is told of a step is what it comes to: a result, or "done".
class Steps {
public:
    /// All that the scenario names has `newName` in its name; its sockets have `newAddress`, in network order.
    Steps(const std::string& newName, unsigned int newAddress) : name(newName), address(newAddress) {}
    Steps(const Steps&) = delete;
    Steps& operator=(const Steps&) = delete;

    template <typename Operation>
    void operator()(const char* step, Operation operation) {
        Do(step, true, operation);
    }

    /// A step that is not to be done again if it comes to something else than it should.
    template <typename Operation>
    void Once(const char* step, Operation operation) {
        Do(step, false, operation);
    }

    /// Makes no call of this function in this scenario fail, since whether there are any depends on chance.
    virtual void LeaveOut(const char* /*function*/) {}

    /// Waits until any thread has made such a call in a step of this scenario, where that can be seen.
    virtual void WaitForCall(const char* /*function*/) {}

    /// Says that what the calling thread does is beside the steps.
    virtual void BeginHelper() {}

    /// Where the files of the scenario are.
    Kel::BasicString Path(const char* file) const { return "/tmp" + name + "-" + file; }

    /// Returns which of the named objects and files of a scenario exist; they do not afterwards.
    std::string TakeNames() const;

    Kel::System::Ve::Internal::ServiceFactory* factory = Kel::System::Ve::Internal::ServiceFactory::GetInstance();
    const Kel::BasicString name;
    const unsigned int address;

protected:
    ~Steps() = default;

private:
    static std::string Text(bool value) { return value ? "true" : "false"; }
    static std::string Text(const std::string& value) { return value; }
    static std::string Text(const Kel::System::Ve::IServiceObject* object);
    template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
    static std::string Text(Number value) {
        return std::to_string(value);
    }

    template <typename Operation>
    void Do(const char* step, bool again, Operation operation) {
        using Result = decltype(operation());
        if constexpr (std::is_void_v<Result>) {
            Do(step, again, operation, [] { return std::string("done"); });
        } else {
            std::optional<Result> result;
            Do(
                step, again, [&] { result.emplace(operation()); }, [&] { return Text(*result); });
        }
    }

    /// `outcome` tells what `operation` has come to, unless it throws.
    virtual void Do(const char* step, bool again, const std::function<void()>& operation,
                    const std::function<std::string()>& outcome) = 0;
};

/// Uses all of one kind of service, from creation to deletion.
struct Scenario {
    const char* name;
    void (*run)(Steps& step);
    /// It changes what there is once in a process, or relies on being alone.
    bool isOfWholeProcess = false;
};

const std::vector<Scenario>& Scenarios();

/// What a process holds that does not end by itself.
class Belongings {
public:
    Belongings();

    /// Returns what there is beside, each with ", " before; threads that are about to end are given some time.
    std::string More() const;

private:
    std::ptrdiff_t descriptors;
    std::ptrdiff_t threads;
    long mappings;
};

/// Returns what the exception that is being handled is, and says.
std::string CurrentException();
