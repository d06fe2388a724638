#pragma once

#include <Kel/Core/BasicString.h>

namespace Kel::System::Ve::Internal {

/// What the registry keeps for each service object.
struct ServiceObjectDebugData {
    /// A place for a diagnostic text; nothing fills it.
    BasicString text;
};

}  // namespace Kel::System::Ve::Internal
