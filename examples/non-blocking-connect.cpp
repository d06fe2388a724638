// A connection is made within a time limit: the socket does not block, the thread waits with Select, and Connect,
// called a second time, gives the outcome.

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Adapters/Runtime.h>

#include <arpa/inet.h>

#include <iostream>

using namespace Kel::System::Ve;
using Adapters::Own;
using Internal::ServiceFactory;
using Socket = ISocketService;
using Error = ISocketService::SocketError;

namespace {

Adapters::Owned<Socket> MakeSocket(ServiceFactory& factory) {
    return Own(factory.CreateSocket(Socket::SocketType::Stream, Socket::SocketDomain::Ipv4,
                                    Socket::SocketBlockingMode::NonBlocking));
}

/// Returns Success or why there is no connection; after TimedOut the attempt goes on until the socket is closed.
Error ConnectWithin(Socket& socket, unsigned int address, int port, unsigned int microseconds) {
    auto status = static_cast<Error>(socket.Connect(address, port));
    if (status == Error::InProgress) {
        // 1 says that the attempt has ended, not how: it is the same for a connection that was refused.
        const int ready = socket.Select(Socket::SelectMode::Connected, microseconds, status);
        if (ready == 1) {
            status = static_cast<Error>(socket.Connect(address, port));
        } else if (ready == 0) {
            status = Error::TimedOut;
        }
    }
    return status;
}

bool Run(ServiceFactory& factory) {
    const unsigned int loopback = htonl(INADDR_LOOPBACK);
    const auto peer = MakeSocket(factory);
    int port = 0;  // the system chooses
    if (peer->Bind(loopback, port) != 0) {
        return false;
    }
    const auto early = MakeSocket(factory);
    const Error refused = ConnectWithin(*early, loopback, port, 5000000);  // nobody listens yet
    if (peer->Listen(1) != 0) {
        return false;
    }
    const auto late = MakeSocket(factory);
    const Error accepted = ConnectWithin(*late, loopback, port, 5000000);
    std::cout << "before Listen: " << static_cast<int>(refused) << ", after: " << static_cast<int>(accepted) << "\n";
    return refused == Error::ConnRefused && accepted == Error::Success;
}

}  // namespace

int main() {
    const Adapters::Runtime runtime;
    return Run(*runtime) ? 0 : 1;
}
