#pragma once

#include <Kel/Core/AppDomainSingleton.h>
#include <Kel/Core/BasicVersion.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/IServiceObject.h>
#include <Kel/System/Ve/Internal/IServiceFactory.h>
#include <Kel/System/Ve/Internal/ServiceManagerStatistics.h>
#include <Kel/System/Ve/Internal/ServiceObjectDebugData.h>

#include <map>
#include <memory>

namespace Kel::System::Ve::Internal {

/// The process's one factory, found through `GetInstance()`, and its registry of all live service objects. Thread-safe,
/// but for what takes no lock: the leak report, `GetStatistics` and `GetRegisteredServiceObjects` are for times at
/// which no other thread makes or deletes service objects.
class KEL_API ServiceFactory : public IServiceFactory, public AppDomainSingleton<ServiceFactory> {
public:
    /// The registry: each live service object, and a place for a text about it.
    using ServiceObjects = std::map<IServiceObject*, ServiceObjectDebugData>;

    /// Makes the factory and stores it in the AppDomain. Throws `Kel::Exception` when there is no AppDomain or a
    /// factory already, and VeException when the registry's mutex cannot be made.
    static void CreateServiceFactory();

    /// Deletes the factory, which prints the leak report; does nothing when there is none. All service objects must
    /// have been deleted: those that are left alive are reported, and deleting one later ends the process. A network
    /// interface object that is alive ends the process at once, for the report has no name for its type.
    /// Throws `Kel::Exception` when there is no AppDomain.
    static void DisposeServiceFactory();

    ~ServiceFactory() override;

    /// Enters a service object into the registry; called by the object itself. Null is ignored. An object that is
    /// registered again is counted again. Throws VeException when the registry's mutex fails.
    void RegisterServiceObject(IServiceObject* object);

    /// Removes a service object from the registry; called by the object itself. Null is ignored. An object that is not
    /// registered is counted down all the same.
    void ReleaseServiceObject(IServiceObject* object);

    /// Writes the leak report to standard output: how many service objects are alive, and a line for each. Writes
    /// nothing when there are none. The stream's base is left hexadecimal. Takes no lock. Not a cancellation point.
    /// Throws `Kel::Exception` at an object whose type has no name.
    void PrintAllNotDestroyedServiceObjects();

    /// The version of the library.
    BasicVersion GetVersion() const { return version; }

    /// The counters themselves; takes no lock.
    const ServiceManagerStatistics& GetStatistics() const { return statistics; }

    /// The registry itself; takes no lock.
    const ServiceObjects& GetRegisteredServiceObjects() const { return registeredObjects; }

protected:
    ServiceFactory();

private:
    // Supplied by the platform.
    static std::unique_ptr<ServiceFactory> CreatePlatformFactory();
    static std::unique_ptr<IMutexService> CreateRegistryMutex();

    ServiceObjects registeredObjects;
    BasicVersion version;
    ServiceManagerStatistics statistics;
    std::unique_ptr<IMutexService> registryMutex;
    // The last entry made, or the one behind the last removed. Objects that live shortly are made and deleted without a
    // search, however many others there are.
    ServiceObjects::iterator recentlyChanged = registeredObjects.end();
    // Left by a deleted object for the next one, which then allocates nothing for it.
    ServiceObjects::node_type spareEntry;
};

}  // namespace Kel::System::Ve::Internal
