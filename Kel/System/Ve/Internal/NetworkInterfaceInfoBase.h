#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/INetworkInterfaceInfo.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// What the network interfaces of all platforms have in common: their texts, empty until they are known.
class KEL_API NetworkInterfaceInfoBase : public INetworkInterfaceInfo, public virtual ServiceObjectBase {
public:
    const BasicString& GetName() const final { return interfaceName; }
    const BasicString& GetIpAddress() const final { return ipAddress; }
    const BasicString& GetSubnetMask() const final { return subnetMask; }
    const BasicString& GetMacAddress() const final { return macAddress; }

    // Pure, for only the platforms' classes are made.
    ~NetworkInterfaceInfoBase() override = 0;

protected:
    BasicString interfaceName;
    BasicString ipAddress;
    BasicString subnetMask;
    BasicString macAddress;
};

inline NetworkInterfaceInfoBase::~NetworkInterfaceInfoBase() = default;

}  // namespace Kel::System::Ve::Internal
