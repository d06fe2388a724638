#include "Scenes.h"

#include <Kel/Core/Exception.h>

#include <string>

using Kel::System::Ve::Internal::ServiceFactory;

ServiceFactory& ShowStart(Narrator& narrator) {
    narrator.Scene("The factory: where all objects come from");
    narrator.Say("The program has made an AppDomain, the process's registry of singletons. Now it makes the factory.");
    ServiceFactory::CreateServiceFactory();
    ServiceFactory& factory = *ServiceFactory::GetInstance();

    const Kel::BasicVersion version = factory.GetVersion();
    narrator.Say("Version: " + version.GetText() + ", build " + std::to_string(version.GetBuild()));
    narrator.Say("Objects alive: " + std::to_string(factory.GetStatistics().GetNumOfObjectsCreated()));
    narrator.Check(factory.GetStatistics().GetNumOfObjectsCreated() == 0, "nothing has been created yet");

    std::string message;
    try {
        ServiceFactory::CreateServiceFactory();
    } catch (const Kel::Exception& exception) {
        message = exception.GetMessage();
    }
    narrator.Check(!message.empty(), "a second factory is refused: " + message);
    return factory;
}
