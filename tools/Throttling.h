#pragma once

#include "Finding.h"

#include <Kel/System/Ve/Internal/ServiceFactory.h>

/// Tries for two seconds, with the lowest real-time priority on this processor, whether a real-time thread that does
/// not wait is stopped for the sake of normal threads.
Finding CheckThrottling(Kel::System::Ve::Internal::ServiceFactory& factory, unsigned int processor);
