#include "Program.h"

#include <Kel/System/Ve/Adapters/Runtime.h>

#include <exception>
#include <iostream>

using Kel::System::Ve::Internal::ServiceFactory;

int Run(const Options& options, int argumentCount, char** arguments, const std::function<int(ServiceFactory&)>& work) {
    try {
        int exitCode = 0;
        if (options.Parse(argumentCount, arguments)) {
            const Kel::System::Ve::Adapters::Runtime runtime;
            exitCode = work(*runtime);
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
