#pragma once

#include <Kel/Core/BasicString.h>

namespace Kel {

/// A message that is complete as it stands: it is never read as a format string, whatever braces are in it.
/// Paths, texts of the system and texts that come from elsewhere are passed to exceptions this way.
struct FinishedText {
    /// The message, word for word.
    BasicString text;
};

}  // namespace Kel
