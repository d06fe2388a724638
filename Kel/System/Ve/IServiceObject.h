#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ServiceType.h>

namespace Kel::System::Ve {

/// What all services have in common. A service is owned by whoever had it created and is deleted through any of its
/// interfaces; the address of its one `IServiceObject` is its identity.
/// The order of the virtual operations is part of the binary interface, here and in every service interface.
class KEL_API IServiceObject {
public:
    virtual ~IServiceObject() = default;

    /// The name of the kind of service, such as "MutexService"; not a name that the user gave.
    virtual const BasicString& GetServiceName() const = 0;

    virtual ServiceType GetServiceType() const = 0;

protected:
    IServiceObject() = default;
    IServiceObject(const IServiceObject&) = delete;
    IServiceObject& operator=(const IServiceObject&) = delete;
};

}  // namespace Kel::System::Ve
