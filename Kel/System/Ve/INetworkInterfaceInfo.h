#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// What a network interface was when the object was made; it does not change after that. Unlike other services, one
/// that is not deleted before the factory is disposed ends the process there: its type has no name to be reported with.
class KEL_API INetworkInterfaceInfo : public virtual IServiceObject {
public:
    /// The name that was asked for, such as "eth0".
    virtual const BasicString& GetName() const = 0;

    /// The IPv4 address, such as "192.0.2.1".
    virtual const BasicString& GetIpAddress() const = 0;

    /// The IPv4 subnet mask, such as "255.255.255.0".
    virtual const BasicString& GetSubnetMask() const = 0;

    /// The hardware address in capital hexadecimal digits, such as "02:00:5E:1B:2C:3D".
    virtual const BasicString& GetMacAddress() const = 0;
};

}  // namespace Kel::System::Ve
