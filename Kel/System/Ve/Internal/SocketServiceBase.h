#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ISocketService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

#include <atomic>

namespace Kel::System::Ve::Internal {

/// What the sockets of all platforms have in common: what they are, and how far they have come.
class KEL_API SocketServiceBase : public ISocketService, public virtual ServiceObjectBase {
public:
    /// Prepares the platform's sockets; called once by the factory.
    static void Startup();

protected:
    SocketServiceBase(SocketType type, SocketDomain domain) : socketType(type), socketDomain(domain) {}

    // 0 when unknown.
    SocketType socketType;
    SocketDomain socketDomain;
    // Never cleared again.
    std::atomic<bool> isShutdown{false};
    std::atomic<bool> isClosed{false};
};

}  // namespace Kel::System::Ve::Internal
