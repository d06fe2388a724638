#include "Program.h"

#include <Kel/Core/AppDomain.h>

#include <exception>
#include <iostream>

using Kel::System::Ve::Internal::ServiceFactory;

namespace {

// For the time of the work.
class Library {
public:
    Library() {
        Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain;
        ServiceFactory::CreateServiceFactory();
    }
    ~Library() { ServiceFactory::DisposeServiceFactory(); }

    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

private:
    Kel::AppDomain appDomain;
};

}  // namespace

int Run(const Options& options, int argumentCount, char** arguments, const std::function<int(ServiceFactory&)>& work) {
    try {
        int exitCode = 0;
        if (options.Parse(argumentCount, arguments)) {
            const Library library;
            exitCode = work(*ServiceFactory::GetInstance());
        } else {
            std::cout << options.GetUsage();
        }
        std::cout.flush();
        return std::cout ? exitCode : throw std::runtime_error("the output could not be written");
    } catch (const UsageError& error) {
        std::cerr << options.GetName() << ": " << error.what() << "\n\n" << options.GetUsage();
        return 2;
    } catch (const std::exception& exception) {
        std::cerr << options.GetName() << ": " << exception.what() << '\n';
        return 1;
    }
}
