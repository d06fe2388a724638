#include "Attempt.h"

#include <Kel/System/Ve/Adapters/Owned.h>

using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Internal::ServiceFactory;

std::string FailureOfThread(ServiceFactory& factory, unsigned int priority, unsigned int processors) {
    return FailureOf([&] {
        const auto thread = Own(
            factory.CreateThread([](void*) -> void* { return nullptr; }, nullptr, "ve-try", priority, processors, 0));
        thread->StartThread();
        thread->Join();
    });
}
