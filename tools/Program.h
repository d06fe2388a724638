#pragma once

#include "Options.h"

#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <functional>

/// Does a tool's work, with the library around it, and returns the exit code: that of the work, 1 when it throws, 2
/// when the command line is wrong.
int Run(const Options& options, int argumentCount, char** arguments,
        const std::function<int(Kel::System::Ve::Internal::ServiceFactory&)>& work);
