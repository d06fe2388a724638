#include "Scenes.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>

using Kel::System::Ve::Internal::ServiceFactory;

void ShowLeakReport(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("The end: what was forgotten is reported");
    narrator.Check(factory.GetStatistics().GetNumOfObjectsCreated() == 0,
                   "all objects of the scenes have been deleted");
    narrator.Say("Two more are made and, on purpose, not deleted before the factory is disposed. It says:");
    // Kept reachable: their memory is not lost, but a service must not be deleted any more once its factory is gone.
    static const void* const forgotten[] = {factory.CreateMutex(true), factory.CreateRWLock()};

    std::ostringstream report;
    std::streambuf* const standardOutput = std::cout.rdbuf(report.rdbuf());
    ServiceFactory::DisposeServiceFactory();
    std::cout.rdbuf(standardOutput);
    std::cout << std::dec << report.str();

    int lines = 0;
    std::istringstream text(report.str());
    for (std::string line; std::getline(text, line);) {
        const std::string end = line.substr(std::min(line.find(" of type"), line.size()));
        lines += end == " of type 'Mutex' was not destroyed." || end == " of type 'RWLockService' was not destroyed."
                     ? 1
                     : 0;
    }
    narrator.Check(report.str().rfind("WARN: 2 service objects were not destroyed:\n", 0) == 0, "it has counted two");
    narrator.Check(lines == static_cast<int>(std::size(forgotten)), "and names each with its address and type");
}
