#include "SocketWorks.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

namespace {

int Ipv4Socket(int type, sockaddr_in& address) {
    const int descriptor = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    socklen_t length = sizeof address;
    address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Expect(descriptor != -1 && bind(descriptor, reinterpret_cast<sockaddr*>(&address), length) == 0);
    Expect(getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0);
    return descriptor;
}

void Connect(int descriptor, const sockaddr_in& address) {
    Expect(connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
}

}  // namespace

SocketPair ConnectedSockets(int domain, int type) {
    SocketPair pair{};
    if (domain == AF_UNIX) {
        Expect(socketpair(domain, type | SOCK_CLOEXEC, 0, pair.data()) == 0);
        return pair;
    }
    sockaddr_in addresses[2];
    pair = {Ipv4Socket(type, addresses[0]), Ipv4Socket(type, addresses[1])};
    if (type == SOCK_DGRAM) {
        Connect(pair[0], addresses[1]);
        Connect(pair[1], addresses[0]);
        return pair;
    }
    const int listener = pair[1];
    Expect(listen(listener, 1) == 0);
    Connect(pair[0], addresses[1]);
    pair[1] = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    Expect(pair[1] != -1 && close(listener) == 0);
    for (const int descriptor : pair) {
        const int noDelay = 1;
        Expect(setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay) == 0);
    }
    return pair;
}
