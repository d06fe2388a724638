#include "Scenes.h"

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/IMessageQueueService.h>
#include <Kel/System/Ve/ISocketService.h>
#include <Kel/System/Ve/IThreadService.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

using Kel::System::Ve::IMessageQueueService;
using Kel::System::Ve::ISocketService;
using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Adapters::Owned;
using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::ServiceFactory;
using SocketType = ISocketService::SocketType;
using SocketDomain = ISocketService::SocketDomain;
using BlockingMode = ISocketService::SocketBlockingMode;
using PollMode = ISocketService::PollMode;
using SocketError = ISocketService::SocketError;

namespace {

constexpr unsigned int patience = 60000;

unsigned int Loopback() { return htonl(INADDR_LOOPBACK); }

// Waits for what comes next; empty when nothing does, or the peer has closed.
std::string Receive(ISocketService& socket) {
    char buffer[100];
    SocketError error{};
    if (socket.Poll(PollMode::Readable, patience, error) != 1) {
        return "";
    }
    const int count = socket.Recv(buffer, sizeof buffer, error);
    return count > 0 ? std::string(buffer, static_cast<std::size_t>(count)) : "";
}

bool Send(ISocketService& socket, const std::string& text) {
    SocketError error{};
    return socket.Send(text.data(), static_cast<unsigned int>(text.size()), error) == static_cast<int>(text.size());
}

// Sends back what comes, until the peer closes.
void* Echo(void* socket) {
    auto& server = *static_cast<ISocketService*>(socket);
    for (std::string text = Receive(server); !text.empty(); text = Receive(server)) {
        Send(server, text);
    }
    return nullptr;
}

}  // namespace

void ShowTcp(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Stream sockets: an echo over TCP");
    const auto make = [&factory] {
        return Owned<ISocketService>(
            factory.CreateSocket(SocketType::Stream, SocketDomain::Ipv4, BlockingMode::Blocking));
    };
    const auto listener = make();
    int port = 0;
    const bool listens = listener->Bind(Loopback(), port) == 0 && listener->Listen(1) == 0;
    narrator.Check(listens, "the server listens on port " + std::to_string(port) + ", which the system has chosen");
    SocketError error{};
    const int connections = listener->Poll(PollMode::Acceptable, 20, error);
    narrator.Check(connections == 0 && error == SocketError::TimedOut, "nobody connects within 20 ms: error " +
                                                                           std::to_string(static_cast<int>(error)) +
                                                                           ", as Windows Sockets counts");
    const auto client = make();
    narrator.Check(client->Connect(Loopback(), port) == 0, "a client connects");
    unsigned int peerAddress = 0;
    int peerPort = 0;
    const auto server = Own(listener->Accept(peerAddress, peerPort, error));
    if (!server) {
        narrator.Check(false, "it is accepted");
        return;
    }
    const auto echo = Own(factory.CreateThread(&Echo, server.get()));
    echo->StartThread();
    narrator.Check(Send(*client, "Is anybody there?") && Receive(*client) == "Is anybody there?",
                   "what it sends comes back");
    client->Close();
    echo->Join();
    const int events = server->Poll(PollMode::Readable, 0, error);
    narrator.Check(events == 1 && error == SocketError::ConnReset,
                   "it closes, and the server's poll says so: error " + std::to_string(static_cast<int>(error)));
}

void ShowUdp(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Datagram sockets: a question and an answer over UDP");
    int ports[] = {0, 0};
    Owned<ISocketService> sockets[2];
    for (int i = 0; i < 2; ++i) {
        sockets[i].reset(factory.CreateSocket(SocketType::Datagram, SocketDomain::Ipv4, BlockingMode::Blocking));
        sockets[i]->Bind(Loopback(), ports[i]);
    }
    SocketError error{};
    sockets[0]->SendTo("ping", 4, error, Loopback(), ports[1]);
    char buffer[16];
    unsigned int address = 0;
    int port = 0;
    const int count = sockets[1]->RecvFrom(buffer, sizeof buffer, error, address, port);
    narrator.Check(count == 4 && port == ports[0],
                   "\"" + std::string(buffer, 4) + "\" has come from port " + std::to_string(port));
    sockets[1]->SendTo("pong", 4, error, address, port);
    narrator.Check(Receive(*sockets[0]) == "pong", "the answer \"pong\" has come back");
}

void ShowLocalSocket(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Local sockets: two processes and a name that is no file");
    const Kel::BasicString name = "kel-tour-" + std::to_string(getpid());
    const auto listener = Own(factory.CreateSocket(SocketType::Stream, SocketDomain::Local, BlockingMode::Blocking));
    narrator.Check(listener->Bind(name) == 0 && listener->Listen(1) == 0, "a process listens as " + name);
    const pid_t child = fork();
    if (child == 0) {
        const auto client = Own(factory.CreateSocket(SocketType::Stream, SocketDomain::Local, BlockingMode::Blocking));
        const bool succeeded =
            client->Connect(name) == 0 && Send(*client, std::to_string(getpid())) && Receive(*client) == "welcome";
        _exit(succeeded ? 0 : 1);
    }
    SocketError error{};
    Kel::BasicString peer;
    const bool connects = child > 0 && listener->Poll(PollMode::Acceptable, patience, error) == 1;
    const Owned<ISocketService> server(connects ? listener->Accept(peer, error) : nullptr);
    narrator.Check(server && Receive(*server) == std::to_string(child),
                   "process " + std::to_string(child) + " connects and says who it is");
    int status = -1;
    narrator.Check(server && Send(*server, "welcome") && waitpid(child, &status, 0) == child && status == 0,
                   "it is welcomed and ends well");
}

void ShowMessageQueue(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Message queues: what is urgent comes first");
    constexpr unsigned int size = 32;
    const Kel::BasicString name = "/kel-tour-" + std::to_string(getpid());
    const auto queue = Own(factory.CreateMessageQueue(name, IMessageQueueService::OpenMode::CreateNew,
                                                      IMessageQueueService::Access::ReadWrite, true, 3, size));
    const pid_t child = fork();
    if (child == 0) {
        // The child knows the name and nothing else.
        const auto opened = Own(factory.CreateMessageQueue(name, true));
        opened->Send("tidy up", 7, 1, 0);
        opened->Send("emergency stop", 14, 9, 0);
        opened->Send("log", 3, 0, 0);
        try {
            opened->Send("one too many", 12, 5, 20);
        } catch (const VeException&) {
            _exit(0);
        }
        _exit(1);
    }
    int status = -1;
    narrator.Check(child > 0 && waitpid(child, &status, 0) == child && status == 0,
                   "a child process has sent three messages; for a fourth there was no room within 20 ms");
    for (const char* const expected : {"emergency stop", "tidy up", "log"}) {
        char buffer[size];
        unsigned int priority = 0;
        const int count = queue->Receive(buffer, size, priority, patience);
        const std::string text(buffer, static_cast<std::size_t>(count));
        narrator.Check(text == expected, "priority " + std::to_string(priority) + ": " + text);
    }
    queue->Unlink();
}
