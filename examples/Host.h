#pragma once

#include <Kel/Core/AppDomain.h>
#include <Kel/Core/Exception.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <iostream>

/// What each example begins and ends with. Returns the exit code of the program: 0 when `run` has returned true.
inline int RunExample(bool (*run)(Kel::System::Ve::Internal::ServiceFactory& factory)) {
    using Kel::System::Ve::Internal::ServiceFactory;
    Kel::AppDomain appDomain;
    Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain;
    ServiceFactory::CreateServiceFactory();
    bool isGood = false;
    try {
        isGood = run(*ServiceFactory::GetInstance());
    } catch (const Kel::Exception& exception) {
        std::cerr << exception.ToString();
    }
    ServiceFactory::DisposeServiceFactory();  // reports what was not deleted
    return isGood ? 0 : 1;
}
