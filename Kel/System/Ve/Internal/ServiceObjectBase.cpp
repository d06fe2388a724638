#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <utility>

namespace Kel::System::Ve::Internal {

ServiceObjectBase::ServiceObjectBase(BasicString serviceName, ServiceType type, bool registers)
    : nameOfService(std::move(serviceName)), serviceType(type), registered(registers) {
    // Last: whatever threw after it would leave an entry without an object.
    if (registered) {
        ServiceFactory::GetInstance()->RegisterServiceObject(this);
    }
}

ServiceObjectBase::~ServiceObjectBase() {
    if (registered) {
        ServiceFactory::GetInstance()->ReleaseServiceObject(this);
    }
}

const BasicString& ServiceObjectBase::GetServiceName() const { return nameOfService; }

ServiceType ServiceObjectBase::GetServiceType() const { return serviceType; }

}  // namespace Kel::System::Ve::Internal
