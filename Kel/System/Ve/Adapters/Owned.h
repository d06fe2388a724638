#pragma once

#include <memory>

namespace Kel::System::Ve::Adapters {

/// Owns a service that the factory has made, and deletes it, before the factory is disposed. So none is static: after
/// main it is too late. That ends the process, or, for a thread that still runs, waits until it has ended.
template <class Service>
using Owned = std::unique_ptr<Service>;

/// Takes over what a `Create...` operation returns: `const auto mutex = Own(factory.CreateMutex(false));`
template <class Service>
Owned<Service> Own(Service* service) {
    return Owned<Service>(service);
}

}  // namespace Kel::System::Ve::Adapters
