#include "Factory.h"
#include "Families.h"
#include "SocketWorks.h"

#include <Kel/System/Ve/ISocketService.h>

#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <memory>

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

}  // namespace

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
