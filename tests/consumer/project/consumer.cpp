// A user's program: makes a service, catches an exception from the library by its type, and finds its own functions in
// the stack trace.

#include <Kel/Core/AppDomain.h>
#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <cstdlib>
#include <iostream>

using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::ServiceFactory;

Kel::BasicString trace;

void TakeTrace() noexcept { trace = VeException("taken").ToString(); }

// The compiler sees that nothing is thrown in here. Unless it is told otherwise, it leaves an ARM unwinder no way out.
[[gnu::noinline]] void CallWithoutThrowing(void (*volatile callback)() noexcept) {
    callback();
    callback = nullptr;
}

int main() {
    Kel::AppDomain appDomain;
    Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain;
    ServiceFactory::CreateServiceFactory();
    bool caught = false;
    {
        const auto mutex = Kel::System::Ve::Adapters::Own(ServiceFactory::GetInstance()->CreateMutex(false));
        try {
            mutex->Unlock();
        } catch (const VeException& exception) {
            std::cout << "caught: " << exception.GetMessage() << '\n';
            caught = true;
        }
    }
    ServiceFactory::DisposeServiceFactory();
    CallWithoutThrowing(&TakeTrace);
    std::cout << trace;
    return caught && trace.find("main") != Kel::BasicString::npos ? EXIT_SUCCESS : EXIT_FAILURE;
}
