#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

namespace Kel::System::Ve::Internal::Linux {

/// The factory on Linux: makes the Linux class of each service.
class KEL_API LinuxServiceFactory final : public ServiceFactory {
public:
    IMutexService* CreateMutex(bool recursive) override;
};

}  // namespace Kel::System::Ve::Internal::Linux
