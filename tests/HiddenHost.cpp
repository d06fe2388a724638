// A host that hides all of its own symbols, as many products do, and in one variant is not position-independent. It
// must share the one singleton with the library, catch the library's exceptions by type and cast its interfaces.

#include <Kel/Core/AppDomain.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/IMutexService.h>
#include <Kel/System/Ve/IServiceObject.h>
#include <Kel/System/Ve/Internal/Linux/MutexService.h>
#include <Kel/System/Ve/Internal/Linux/SignalHandlerService.h>
#include <Kel/System/Ve/Internal/Linux/TimeoutConversion.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>
#include <Kel/System/Ve/Internal/SharedLibraryServiceBase.h>

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <sstream>

using Kel::BasicString;
using Kel::System::Ve::IMutexService;
using Kel::System::Ve::IServiceObject;
using Kel::System::Ve::ISharedLibraryService;
using Kel::System::Ve::ISignalHandlerService;
using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::GetPathOfCurrentModule;
using Kel::System::Ve::Internal::ServiceFactory;
using Kel::System::Ve::Internal::Linux::MutexService;
using Kel::System::Ve::Internal::Linux::SignalHandlerService;
using Kel::System::Ve::Internal::Linux::TimeoutConversion;

namespace {

bool succeeded = true;

void Check(bool condition, const char* what) {
    std::printf("%s: %s\n", condition ? "ok" : "FAILED", what);
    succeeded = succeeded && condition;
}

template <typename ExceptionType>
bool Catches(void (*operation)()) {
    try {
        operation();
    } catch (const ExceptionType&) {
        return true;
    } catch (const std::exception& exception) {
        std::printf("caught as something else: %s\n", exception.what());
    }
    return false;
}

void ReadUnknownClock() {
    timespec deadline;
    TimeoutConversion::Convert(0, deadline, static_cast<TimeoutConversion::ClockId>(9));
}

}  // namespace

int main() {
    Check(Catches<Kel::Exception>(&ServiceFactory::CreateServiceFactory), "without AppDomain there is no factory");
    Kel::AppDomain appDomain;
    Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain;
    ServiceFactory::CreateServiceFactory();
    ServiceFactory* const factory = ServiceFactory::GetInstance();
    Check(factory == appDomain.Find(typeid(ServiceFactory)), "host and library find the same factory");

    Check(Catches<VeException>(&ReadUnknownClock), "a VeException is caught by its type");
    Check(Catches<Kel::Exception>(&ReadUnknownClock), "a VeException is caught as a Kel::Exception");
    Check(Catches<Kel::Exception>([] { throw VeException("{0"); }), "a broken format string gives a Kel::Exception");

    {
        const std::unique_ptr<IMutexService> mutex(factory->CreateMutex(false));
        IServiceObject* const object = mutex.get();
        Check(factory->GetRegisteredServiceObjects().count(object) == 1, "the object is registered by its identity");
        Check(dynamic_cast<IMutexService*>(object) == mutex.get(), "an interface is cast from the common one");
        Check(dynamic_cast<MutexService*>(object) != nullptr, "the Linux class is cast from the common interface");
        std::ostringstream type;
        type << object->GetServiceType();
        Check(type.str() == "Mutex", "the type's name is printed");
    }
    {
        BasicString (*volatile const path)() = &GetPathOfCurrentModule;
        Check(path().find("libKel.System.Ve.so") != BasicString::npos, "the library knows its path");
        const std::unique_ptr<ISharedLibraryService> program(factory->CreateSharedLibrary());
        program->Load("");
        Check(program->GetFunctionAddress("NoSuchFunction") == nullptr, "the program itself is loaded as a library");
    }
    {
        const std::unique_ptr<ISignalHandlerService> handlers(factory->CreateSignalHandler());
        handlers->Setup(nullptr, nullptr);
        struct sigaction action {};
        sigaction(SIGSEGV, nullptr, &action);
        Check(action.sa_sigaction == &SignalHandlerService::StackTraceHandler, "a function has one address");
    }
    Check(factory->GetStatistics().GetNumOfObjectsCreated() == 0, "nothing is left alive");
    ServiceFactory::DisposeServiceFactory();
    return succeeded ? EXIT_SUCCESS : EXIT_FAILURE;
}
