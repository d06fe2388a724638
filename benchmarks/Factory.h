#pragma once

#include <Kel/Core/AppDomain.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

using Kel::System::Ve::Internal::ServiceFactory;

/// The process has its factory for as long as this object.
class FactoryScope {
public:
    FactoryScope() {
        Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain;
        ServiceFactory::CreateServiceFactory();
    }
    ~FactoryScope() { ServiceFactory::DisposeServiceFactory(); }
    FactoryScope(const FactoryScope&) = delete;
    FactoryScope& operator=(const FactoryScope&) = delete;

private:
    Kel::AppDomain appDomain;
};

inline ServiceFactory& Factory() { return *ServiceFactory::GetInstance(); }
