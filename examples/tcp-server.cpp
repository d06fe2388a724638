// A TCP server: one thread waits for connections, each connection has a thread of its own. Shutting a socket down ends
// what waits for it, and with that the server.

#include "Host.h"

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace Kel::System::Ve;
using Adapters::Own;
using Adapters::Owned;
using Internal::ServiceFactory;
using Socket = ISocketService;
using Error = ISocketService::SocketError;

namespace {

Owned<Socket> MakeSocket(ServiceFactory& factory) {
    return Own(factory.CreateSocket(Socket::SocketType::Stream, Socket::SocketDomain::Ipv4,
                                    Socket::SocketBlockingMode::Blocking));
}

/// A call may take less than it is given.
bool SendAll(Socket& socket, const std::string& text) {
    Error error{};
    for (std::size_t sent = 0; sent < text.size();) {
        const int count = socket.Send(text.data() + sent, static_cast<unsigned int>(text.size() - sent), error);
        if (count < 0) {
            return false;
        }
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

/// Receives up to the end of a line, or, for as long as something comes within ten seconds, of the stream.
std::string ReceiveLine(Socket& socket) {
    std::string line;
    Error error{};
    char byte = 0;
    while (socket.Poll(Socket::PollMode::Readable, 10000, error) == 1 && error == Error::Success &&
           socket.Recv(&byte, 1, error) == 1 && byte != '\n') {
        line += byte;
    }
    return line;
}

class Connection {
public:
    Connection(ServiceFactory& factory, Owned<Socket> accepted)
        : socket(std::move(accepted)), thread(Own(factory.CreateThread(&Serve, socket.get()))) {
        thread->StartThread();
    }

    bool HasEnded() const { return !thread->Joinable(); }

private:
    /// Answers each line with the same in capitals, until the client closes.
    static void* Serve(void* argument) {
        auto& socket = *static_cast<Socket*>(argument);
        for (std::string line = ReceiveLine(socket); !line.empty(); line = ReceiveLine(socket)) {
            for (char& letter : line) {
                letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
            }
            SendAll(socket, line + "\n");
        }
        return nullptr;
    }

    const Owned<Socket> socket;
    const Owned<IThreadService> thread;  // ends before the socket goes
};

void* RunServer(void* argument) {
    auto& listener = *static_cast<Socket*>(argument);
    std::vector<Owned<Connection>> connections;
    Error error{};
    unsigned int address = 0;
    int port = 0;
    // Until this side shuts the listener down: then the error is Shutdown.
    while (listener.Poll(Socket::PollMode::Acceptable, 0xFFFFFFFF, error) == 1 && error == Error::Success) {
        if (auto accepted = Own(listener.Accept(address, port, error))) {
            const auto hasEnded = [](const auto& connection) { return connection->HasEnded(); };
            connections.erase(std::remove_if(connections.begin(), connections.end(), hasEnded), connections.end());
            try {
                connections.push_back(
                    std::make_unique<Connection>(*ServiceFactory::GetInstance(), std::move(accepted)));
            } catch (const Exceptions::VeException& exception) {
                std::cerr << exception.GetMessage() << "\n";  // no more threads: the client's connection is closed
            }
        }
    }
    return nullptr;
}

bool Run(ServiceFactory& factory) {
    const auto listener = MakeSocket(factory);
    const unsigned int loopback = htonl(INADDR_LOOPBACK);
    int port = 0;  // the system chooses
    if (listener->Bind(loopback, port) != 0 || listener->Listen(10) != 0) {
        return false;
    }
    const auto server = Own(factory.CreateThread(&RunServer, listener.get()));
    server->StartThread();

    std::string answers;
    for (const char* const question : {"how do", "you do", "server"}) {
        const auto client = MakeSocket(factory);
        if (client->Connect(loopback, port) == 0 && SendAll(*client, std::string(question) + "\n")) {
            answers += ReceiveLine(*client) + " ";
        }
    }
    listener->Shutdown();
    server->Join();
    std::cout << answers << "\n";
    return answers == "HOW DO YOU DO SERVER ";
}

}  // namespace

int main() { return RunExample(&Run); }
