#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ServiceType.h>

namespace Kel::System::Ve {

/// What all services have in common. A service is owned by whoever had it created and is deleted through any of its
/// interfaces, before the factory is disposed; the address of its one `IServiceObject` is its identity. Deleting is no
/// cancellation point; what fails there ends the process, unless its interface says otherwise.
/// The order of the virtual operations is part of the binary interface, here and in every service interface.
class KEL_API IServiceObject {
public:
    virtual ~IServiceObject() = default;

    /// The name of the kind of service, such as "MutexService"; not a name that the user gave.
    virtual const BasicString& GetServiceName() const = 0;

    /// The kind of service, as a number that never changes.
    virtual ServiceType GetServiceType() const = 0;

protected:
    IServiceObject() = default;
    IServiceObject(const IServiceObject&) = delete;
    IServiceObject& operator=(const IServiceObject&) = delete;
};

}  // namespace Kel::System::Ve
