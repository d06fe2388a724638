#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/NetworkInterfaceInfoBase.h>

namespace Kel::System::Ve::Internal::Linux {

/// The network interface information on Linux. Of an interface's name 15 characters count.
class KEL_API NetworkInterfaceInfo final : public NetworkInterfaceInfoBase {
public:
    /// Knows nothing yet.
    NetworkInterfaceInfo();

    /// Returns what is known of an interface, owned by the caller; null when there is no such interface, or it has no
    /// IPv4 address or cannot be asked, and then `error` says why.
    static NetworkInterfaceInfo* Create(const BasicString& interfaceName, BasicString& error);
    static NetworkInterfaceInfo* Create(const BasicString& interfaceName);

    /// The same for an object that is there. Returns whether it succeeded.
    static bool TryCreate(const BasicString& interfaceName, BasicString& error, NetworkInterfaceInfo& info);
    static bool TryCreate(const BasicString& interfaceName, NetworkInterfaceInfo& info);

    /// Asks the system for the addresses of the interface that the object has the name of. On failure they stay as they
    /// are, and `error` says why.
    bool Read(BasicString& error);
};

}  // namespace Kel::System::Ve::Internal::Linux
