#pragma once

// A fuzz target tries one part of the library with whatever text it is given, and ends the process when a property does
// not hold that the library has for all input.

#include <Kel/Core/Exception.h>
#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <map>
#include <sstream>
#include <string>

using Kel::System::Ve::Adapters::Own;

/// A target, known by the name of its source. A number that an input lacks is 0.
struct Target {
    using Run = void (*)(std::istream& input);
    Target(const char* name, Run run) { all[name] = run; }
    static inline std::map<std::string, Run> all;
};

/// Ends the process unless the property holds.
void Require(bool holds, const char* property);

/// Returns the factory, which is there for the rest of the process.
Kel::System::Ve::Internal::ServiceFactory& Factory();

/// Returns the message of the exception that the operation throws, empty when it throws none.
template <typename Operation>
std::string Thrown(Operation operation) {
    try {
        operation();
    } catch (const Kel::Exception& exception) {
        return exception.GetMessage();
    }
    return "";
}
