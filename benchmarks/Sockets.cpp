#include "Works.h"

#include <Kel/System/Ve/ISocketService.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <memory>
#include <utility>

using Kel::System::Ve::ISocketService;

namespace {

struct LibrarySocket {
    explicit LibrarySocket(int descriptor) : service(Factory().CreateSocket(&descriptor)) {}

    int Send(const void* data, std::size_t length) {
        ISocketService::SocketError error{};
        return service->Send(data, static_cast<unsigned int>(length), error);
    }
    int Receive(void* buffer, std::size_t length) {
        ISocketService::SocketError error{};
        return service->Recv(buffer, static_cast<unsigned int>(length), error);
    }

    std::unique_ptr<ISocketService> service;
};

struct BareSocket {
    explicit BareSocket(int socketDescriptor) : descriptor(socketDescriptor) {}
    ~BareSocket() { close(descriptor); }
    BareSocket(const BareSocket&) = delete;
    BareSocket& operator=(const BareSocket&) = delete;

    ssize_t Send(const void* data, std::size_t length) { return send(descriptor, data, length, MSG_NOSIGNAL); }
    ssize_t Receive(void* buffer, std::size_t length) { return recv(descriptor, buffer, length, MSG_NOSIGNAL); }

    int descriptor;
};

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

void RegisterSockets() {
    RegisterTransfers<LibrarySocket, LibrarySocket>("library");
    RegisterTransfers<BareSocket, BareSocket>("bare");
    RegisterSendAndReceive<LibrarySocket>("library");
    RegisterSendAndReceive<BareSocket>("bare");

    RegisterReady<LibrarySocket>("socket/poll ready/library", [](LibrarySocket& socket) {
        ISocketService::SocketError error{};
        Expect(socket.service->Poll(ISocketService::PollMode::Readable, 1000, error) == 1);
    });
    // With the look for a reset that belongs to the library's.
    RegisterReady<BareSocket>("socket/poll ready/bare", [](BareSocket& socket) {
        pollfd polled{socket.descriptor, POLLIN | POLLRDBAND, 0};
        Expect(poll(&polled, 1, 1000) == 1 && polled.revents == POLLIN);
        char byte = 0;
        Expect(recv(socket.descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1);
    });
    RegisterReady<LibrarySocket>("socket/select ready/library", [](LibrarySocket& socket) {
        ISocketService::SocketError error{};
        Expect(socket.service->Select(ISocketService::SelectMode::Readable, 1000000, error) == 1);
    });
    RegisterReady<BareSocket>("socket/select ready/bare", [](BareSocket& socket) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(socket.descriptor, &set);
        timeval limit{1, 0};
        Expect(select(socket.descriptor + 1, &set, nullptr, nullptr, &limit) == 1);
    });
}
