#include <Kel/Core/AppDomain.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <iostream>
#include <memory>

using namespace Kel::System::Ve;
using Internal::ServiceFactory;

int main() {
    Kel::AppDomain appDomain;  // the process's registry of singletons
    Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain;
    ServiceFactory::CreateServiceFactory();
    try {
        const std::unique_ptr<IMutexService> mutex(ServiceFactory::GetInstance()->CreateMutex(false));
        if (mutex->TimedLock(100) == 0) {  // milliseconds; -1 when the time ran out
            std::cout << "locked\n";
            mutex->Unlock();
        }
    } catch (const Exceptions::VeException& exception) {
        std::cerr << exception.ToString();  // message and stack trace
    }
    ServiceFactory::DisposeServiceFactory();  // reports what was not deleted
}
