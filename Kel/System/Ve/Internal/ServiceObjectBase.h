#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>
#include <Kel/System/Ve/ServiceType.h>

namespace Kel::System::Ve::Internal {

/// The common base of all service objects: their name, their type, and their entry in the factory's registry.
/// A virtual base, so it is the concrete class that names and registers the object, before its own constructor runs;
/// when that throws, the entry is withdrawn again.
class KEL_API ServiceObjectBase : public virtual IServiceObject {
public:
    const BasicString& GetServiceName() const final;
    ServiceType GetServiceType() const final;

protected:
    /// Enters the object into the factory's registry if `registers` is set. Throws `Kel::Exception` when there is no
    /// factory, VeException when the registry cannot be used.
    ServiceObjectBase(BasicString serviceName, ServiceType type, bool registers);

    /// Leaves the registry. Ends the process when the factory is gone: services are deleted before it is disposed.
    ~ServiceObjectBase() override;

private:
    BasicString nameOfService;
    ServiceType serviceType;
    bool registered;
};

}  // namespace Kel::System::Ve::Internal
