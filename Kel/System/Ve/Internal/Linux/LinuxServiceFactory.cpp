#include <Kel/System/Ve/Internal/Linux/LinuxServiceFactory.h>

#include <Kel/System/Ve/Internal/Linux/MutexService.h>

#include <memory>

namespace Kel::System::Ve::Internal {

std::unique_ptr<ServiceFactory> ServiceFactory::CreatePlatformFactory() {
    return std::make_unique<Linux::LinuxServiceFactory>();
}

std::unique_ptr<IMutexService> ServiceFactory::CreateRegistryMutex() {
    auto mutex = std::make_unique<Linux::MutexService>(false);
    mutex->Init(true, Linux::MutexService::ProcessPrivate);
    return mutex;
}

}  // namespace Kel::System::Ve::Internal

namespace Kel::System::Ve::Internal::Linux {

IMutexService* LinuxServiceFactory::CreateMutex(bool recursive) {
    auto mutex = std::make_unique<MutexService>();
    mutex->Init(recursive, MutexService::ProcessPrivate);
    return mutex.release();
}

}  // namespace Kel::System::Ve::Internal::Linux
