#pragma once

#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <string>
#include <vector>

/// What one question about the machine came to.
struct Finding {
    enum class State {
        Good,
        /// It works, but less well than it could.
        Weak,
        /// What a real-time service needs is missing.
        Missing,
    };

    State state;
    /// What works, or the words in which it failed.
    std::string text;
};

struct Row {
    std::string name;
    Finding finding;
    /// What fails without it, or goes worse.
    std::string neededBy;
    /// The line that grants it, and where it belongs.
    std::string grantedBy;
};

/// Tries everything, and leaves nothing behind but the latency request, which lasts until the process ends.
std::vector<Row> CheckMachine(Kel::System::Ve::Internal::ServiceFactory& factory);
