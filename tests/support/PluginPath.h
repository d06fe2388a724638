#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/System/Ve/Internal/ProcessServiceBase.h>

#include <string>

/// Returns the path of a library that nothing has loaded yet.
inline Kel::BasicString PluginPath(const std::string& name = "plugin") {
    const Kel::BasicString program = Kel::System::Ve::Internal::ProcessServiceBase::GetCurrentName();
    return program.substr(0, program.rfind('/') + 1) + "libve-tests-" + name + ".so";
}
