#include "Families.h"

#include <Kel/System/Ve/IMessageQueueService.h>
#include <Kel/System/Ve/ISocketService.h>

#include <arpa/inet.h>
#include <mqueue.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

using Kel::System::Ve::IMessageQueueService;
using Kel::System::Ve::ISocketService;
using SocketType = ISocketService::SocketType;
using SocketDomain = ISocketService::SocketDomain;
using BlockingMode = ISocketService::SocketBlockingMode;

namespace {

void RegisterSockets(ServiceFactory& factory) {
    // Two datagram sockets that are connected; one message is always waiting at the second.
    const std::shared_ptr<ISocketService> sockets[2] = {
        std::shared_ptr<ISocketService>(
            factory.CreateSocket(SocketType::Datagram, SocketDomain::Ipv4, BlockingMode::Blocking)),
        std::shared_ptr<ISocketService>(
            factory.CreateSocket(SocketType::Datagram, SocketDomain::Ipv4, BlockingMode::Blocking))};
    int ports[2] = {0, 0};
    for (int i = 0; i < 2; ++i) {
        sockets[i]->Bind(htonl(INADDR_LOOPBACK), ports[i]);
    }
    for (int i = 0; i < 2; ++i) {
        sockets[i]->Connect(htonl(INADDR_LOOPBACK), ports[1 - i]);
    }
    ISocketService::SocketError error{};
    sockets[0]->Send("x", 1, error);
    const auto sender = sockets[0];
    const auto receiver = sockets[1];
    const int bareSender = sender->GetSocketDescriptor();
    const int bareReceiver = receiver->GetSocketDescriptor();

    Register("socket/send and receive 64 bytes/library", [sender, receiver] {
        char buffer[64] = {};
        ISocketService::SocketError result{};
        sender->Send(buffer, sizeof buffer, result);
        receiver->Recv(buffer, sizeof buffer, result);
    });
    Register("socket/send and receive 64 bytes/bare", [bareSender, bareReceiver] {
        char buffer[64] = {};
        send(bareSender, buffer, sizeof buffer, MSG_NOSIGNAL);
        recv(bareReceiver, buffer, sizeof buffer, MSG_NOSIGNAL);
    });
    Register("socket/poll ready/library", [receiver] {
        ISocketService::SocketError result{};
        benchmark::DoNotOptimize(receiver->Poll(ISocketService::PollMode::Readable, 1000, result));
    });
    // With the look for a reset that belongs to the library's.
    Register("socket/poll ready/bare", [bareReceiver] {
        pollfd polled{bareReceiver, POLLIN | POLLRDBAND, 0};
        benchmark::DoNotOptimize(poll(&polled, 1, 1000));
        char byte = 0;
        benchmark::DoNotOptimize(recv(bareReceiver, &byte, 1, MSG_PEEK | MSG_DONTWAIT));
    });
    Register("socket/select ready/library", [receiver] {
        ISocketService::SocketError result{};
        benchmark::DoNotOptimize(receiver->Select(ISocketService::SelectMode::Readable, 1000000, result));
    });
    Register("socket/select ready/bare", [bareReceiver] {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(bareReceiver, &set);
        timeval limit{1, 0};
        benchmark::DoNotOptimize(select(bareReceiver + 1, &set, nullptr, nullptr, &limit));
    });
    Register("socket/create and close/library", [&factory] {
        delete factory.CreateSocket(SocketType::Datagram, SocketDomain::Ipv4, BlockingMode::Blocking);
    });
    Register("socket/create and close/bare", [] { close(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); });
}

void RegisterMessageQueues(ServiceFactory& factory) {
    const std::string name = "/kel-bench-" + std::to_string(getpid());
    const std::shared_ptr<IMessageQueueService> queue(factory.CreateMessageQueue(
        name, IMessageQueueService::OpenMode::CreateNew, IMessageQueueService::Access::ReadWrite, true, 4, 64));
    const mqd_t bare = mq_open(name.c_str(), O_RDWR);
    queue->Unlink();
    const std::shared_ptr<IMessageQueueService> own(factory.CreateMessageQueue(
        name, IMessageQueueService::OpenMode::CreateNew, IMessageQueueService::Access::ReadWrite, true, 4, 64));
    mq_unlink(name.c_str());

    Register("message queue/send and receive 64 bytes/library", [own] {
        char buffer[64] = {};
        unsigned int priority = 0;
        own->Send(buffer, sizeof buffer, 1, 0);
        own->Receive(buffer, sizeof buffer, priority, 0);
    });
    Register("message queue/send and receive 64 bytes/bare", [bare] {
        char buffer[64] = {};
        unsigned int priority = 0;
        mq_send(bare, buffer, sizeof buffer, 1);
        mq_receive(bare, buffer, sizeof buffer, &priority);
    });
}

}  // namespace

void RegisterCommunication(ServiceFactory& factory) {
    RegisterSockets(factory);
    RegisterMessageQueues(factory);
}
