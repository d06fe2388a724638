#include "Families.h"

#include <Kel/Core/AppDomain.h>

int main(int count, char** arguments) {
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) {
        return 1;
    }
    Kel::AppDomain appDomain;
    Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain;
    ServiceFactory::CreateServiceFactory();
    ServiceFactory& factory = *ServiceFactory::GetInstance();
    RegisterSynchronization(factory);
    RegisterCommunication(factory);
    RegisterStorage(factory);
    RegisterObjects(factory);
    RegisterFailures(factory);
    benchmark::RunSpecifiedBenchmarks();
    // What the benchmarks hold is let go of before the factory.
    benchmark::ClearRegisteredBenchmarks();
    ServiceFactory::DisposeServiceFactory();
}
