#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IMutexService.h>

namespace Kel::System::Ve::Internal {

/// Makes all services. Each operation returns a new object that the caller owns and deletes, before the factory is
/// disposed; deleting it takes it out of the registry. What a service's construction throws is passed on, and then
/// nothing is left behind. May be called from any thread.
/// The order of the virtual operations is part of the binary interface.
class KEL_API IServiceFactory {
public:
    virtual ~IServiceFactory() = default;

    /// Makes a mutex for the threads of this process, free, with priority inheritance.
    virtual IMutexService* CreateMutex(bool recursive) = 0;

protected:
    IServiceFactory() = default;
    IServiceFactory(const IServiceFactory&) = delete;
    IServiceFactory& operator=(const IServiceFactory&) = delete;
};

}  // namespace Kel::System::Ve::Internal
