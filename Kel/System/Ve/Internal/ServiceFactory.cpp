#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <Kel/Core/AppDomain.h>
#include <Kel/Core/CancellationDisabled.h>
#include <Kel/Core/Exception.h>
#include <Kel/Core/RuntimeTypeInfo.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/SocketServiceBase.h>
#include <Kel/System/Ve/ServiceType.h>

#include <iostream>
#include <sstream>
#include <string>
#include <typeinfo>
#include <utility>

namespace Kel::System::Ve::Internal {

using Exceptions::VeException;

namespace {

// Once a mutex that lends priority is waited for, the kernel hands it on at every turn: two threads that make objects
// at the same time would cost each other five microseconds an object. What is done under it takes less than these
// tries.
void LockRegistry(IMutexService& mutex) {
    constexpr int tries = 100;
    for (int i = 0; i < tries; ++i) {
        if (mutex.TryLock()) {
            return;
        }
    }
    mutex.Lock();
}

BasicString TypeName() { return RuntimeTypeInfo::GetTypeName(typeid(ServiceFactory)); }

// Apart from standard output, so that a type without a name does not leave that in a failed state.
std::string TypeText(ServiceType type) {
    std::ostringstream text;
    text << type;
    if (text.fail()) {
        throw Exception("Invalid value for Enum '{0}' occurs: {1}", RuntimeTypeInfo::GetTypeName(typeid(ServiceType)),
                        type);
    }
    return text.str();
}

}  // namespace

void ServiceFactory::CreateServiceFactory() {
    if (Singleton<AppDomain>::GetInstance().Find(typeid(ServiceFactory)) != nullptr) {
        throw Exception("AppDomain Singleton instance of type '{0}' was created yet!", TypeName());
    }
    std::unique_ptr<ServiceFactory> factory = CreatePlatformFactory();
    // As ServiceFactory*, not as a pointer to the platform's class: that is what GetInstance makes of it.
    if (!Singleton<AppDomain>::GetInstance().Add(typeid(ServiceFactory), factory.get())) {
        // Another thread was faster. A factory is deleted by its disposal only, and this one has none.
        static_cast<void>(factory.release());
        throw Exception("AppDomain Singleton of type '{0}' has been added yet", TypeName());
    }
    static_cast<void>(factory.release());
}

void ServiceFactory::DisposeServiceFactory() {
    AppDomain& appDomain = Singleton<AppDomain>::GetInstance();
    // Withdrawn before it is deleted: nobody finds a factory that is being destroyed, and of two disposals at the same
    // time one deletes it.
    delete static_cast<ServiceFactory*>(appDomain.Withdraw(typeid(ServiceFactory)));
    appDomain.RemoveWithdrawn(typeid(ServiceFactory));
}

ServiceFactory::ServiceFactory() : version("2024.0.8 LTS", 24, 0, 8, 183, BasicString::Empty) {
    registryMutex = CreateRegistryMutex();
    SocketServiceBase::Startup();
}

ServiceFactory::~ServiceFactory() { PrintAllNotDestroyedServiceObjects(); }

void ServiceFactory::RegisterServiceObject(IServiceObject* object) {
    if (!registryMutex) {
        throw VeException("{0}: Mutex not initialized yet.", "RegisterServiceObject");
    }
    if (object == nullptr) {
        return;
    }
    LockRegistry(*registryMutex);
    ServiceObjects::node_type entry = std::move(spareEntry);
    if (entry.empty()) {
        // Made outside the lock: nothing under it allocates.
        registryMutex->Unlock();
        ServiceObjects single;
        single.try_emplace(object);
        entry = single.extract(single.begin());
        LockRegistry(*registryMutex);
    }
    entry.key() = object;
    const std::size_t before = registeredObjects.size();
    const auto made = registeredObjects.insert(recentlyChanged, std::move(entry));
    recentlyChanged = made;
    statistics.IncrementNumOfObjects();
    try {
        registryMutex->Unlock();
    } catch (...) {
        // The object's construction fails now, so it must not stay listed.
        if (registeredObjects.size() != before) {
            recentlyChanged = registeredObjects.erase(made);
        }
        statistics.DecrementNumOfObjects();
        throw;
    }
}

void ServiceFactory::ReleaseServiceObject(IServiceObject* object) {
    if (!registryMutex) {
        throw VeException("{0}: Mutex not initialized yet.", "ReleaseServiceObject");
    }
    if (object == nullptr) {
        return;
    }
    LockRegistry(*registryMutex);
    if (recentlyChanged == registeredObjects.end() || recentlyChanged->first != object) {
        recentlyChanged = registeredObjects.find(object);
    }
    // What was the spare one until now is freed after the lock is.
    ServiceObjects::node_type entry;
    if (recentlyChanged != registeredObjects.end()) {
        entry = registeredObjects.extract(recentlyChanged++);
        entry.swap(spareEntry);
    }
    statistics.DecrementNumOfObjects();
    registryMutex->Unlock();
}

void ServiceFactory::PrintAllNotDestroyedServiceObjects() {
    const ServiceObjects objects = registeredObjects;
    if (objects.empty()) {
        return;
    }
    // Cancelled while it writes, the thread would leave the report incomplete and the stream in a failed state.
    const CancellationDisabled disabled;
    // The count has no base of its own: it is decimal until a report has left the stream hexadecimal.
    std::cout << "WARN: " << objects.size() << " service objects were not destroyed:" << std::endl;
    for (const auto& [object, debugData] : objects) {
        std::cout << "WARN: service object " << std::hex << static_cast<const void*>(object) << " of type '"
                  << TypeText(object->GetServiceType()) << "' was not destroyed." << std::endl;
    }
}

}  // namespace Kel::System::Ve::Internal
