#pragma once

#include "Finding.h"

#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <string>
#include <vector>

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
