#pragma once

#include <Kel/Core/AppDomain.h>
#include <Kel/Core/Exception.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

namespace Kel::System::Ve::Adapters {

/// The process's AppDomain and its service factory, for as long as this object lives: the first object of `main`, which
/// all services are deleted before, also when an exception passes.
///
///     const Adapters::Runtime runtime;
///     const auto mutex = Adapters::Own(runtime->CreateMutex(false));
class Runtime {
public:
    /// Makes both. Throws `Kel::Exception` when the process has an AppDomain already, which is left alone, and as
    /// `ServiceFactory::CreateServiceFactory` does; nothing is left then.
    Runtime() { Internal::ServiceFactory::CreateServiceFactory(); }

    /// Disposes both, as `ServiceFactory::DisposeServiceFactory` does: that reports what was not deleted.
    ~Runtime() { Internal::ServiceFactory::DisposeServiceFactory(); }

    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;

    /// @{
    /// The factory. May be called from any thread.
    Internal::ServiceFactory& operator*() const { return *Internal::ServiceFactory::GetInstance(); }
    Internal::ServiceFactory* operator->() const { return Internal::ServiceFactory::GetInstance(); }
    /// @}

private:
    /// An AppDomain that is the process's for as long as it lives.
    class OwnAppDomain {
    public:
        OwnAppDomain() {
            if (Singleton<AppDomain>::pInstance != nullptr) {
                throw Exception("Runtime: The process has an AppDomain already.");
            }
            Singleton<AppDomain>::pInstance = &appDomain;
        }
        ~OwnAppDomain() { Singleton<AppDomain>::pInstance = nullptr; }

        OwnAppDomain(const OwnAppDomain&) = delete;
        OwnAppDomain& operator=(const OwnAppDomain&) = delete;

    private:
        AppDomain appDomain;
    };

    const OwnAppDomain appDomain;
};

}  // namespace Kel::System::Ve::Adapters
