// A TCP server: one thread waits for connections, each connection has a thread of its own. No client can hold it up: a
// line has to arrive, and its answer to be taken, within a time limit, and at the end each socket is shut down, which
// wakes whoever waits for it.

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Adapters/Runtime.h>
#include <Kel/System/Ve/Adapters/Timeout.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/ThreadServiceBase.h>

#include <arpa/inet.h>
#include <sys/time.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
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

constexpr std::chrono::seconds limit(10);
constexpr std::size_t longestLine = 1000;

Owned<Socket> MakeSocket(ServiceFactory& factory) {
    return Own(factory.CreateSocket(Socket::SocketType::Stream, Socket::SocketDomain::Ipv4,
                                    Socket::SocketBlockingMode::Blocking));
}

/// Returns whether the socket took all of the line. A blocking Send gives up, with less or with -1, when its
/// SendTimeout has passed and when the socket is shut down.
bool SendLine(Socket& socket, const std::string& line) {
    const std::string text = line + "\n";
    Error error{};
    return socket.Send(text.data(), static_cast<unsigned int>(text.size()), error) == static_cast<int>(text.size());
}

/// Returns the next line; nothing when the stream has ended, the line is too long or not complete within the limit.
/// That is for the whole line: if each byte had it, a client could keep the thread for ever.
std::optional<std::string> ReceiveLine(Socket& socket) {
    const auto deadline = Adapters::DeadlineAfter(limit);
    std::string line;
    Error error{};
    char byte = 0;
    while (line.size() < longestLine &&
           socket.Poll(Socket::PollMode::Readable, Adapters::MillisecondsUntil(deadline), error) == 1 &&
           error == Error::Success && socket.Recv(&byte, 1, error) == 1) {
        if (byte == '\n') {
            return line;
        }
        line += byte;
    }
    return std::nullopt;
}

class Connection {
public:
    Connection(ServiceFactory& factory, Owned<Socket> accepted)
        : socket(std::move(accepted)), thread(Own(factory.CreateThread(&Serve, socket.get()))) {
        const timeval sendTimeout{limit.count(), 0};
        socket->SetSockOpt(Socket::SocketOptionName::SendTimeout, &sendTimeout, sizeof sendTimeout);
        thread->StartThread();
    }
    ~Connection() { socket->Shutdown(); }  // ends the thread, for which its deletion waits
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool HasEnded() const { return !thread->Joinable(); }

private:
    /// Answers each line with the same in capitals.
    static void* Serve(void* argument) {
        auto& socket = *static_cast<Socket*>(argument);
        while (std::optional<std::string> line = ReceiveLine(socket)) {
            for (char& letter : *line) {
                letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
            }
            if (!SendLine(socket, *line)) {
                break;
            }
        }
        socket.Shutdown();  // the client sees the end now; the socket is closed later, with this object
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
    // Until this side shuts the listener down: then there is an error.
    while (listener.Poll(Socket::PollMode::Acceptable, 0xFFFFFFFF, error) == 1 && error == Error::Success) {
        auto accepted = Own(listener.Accept(address, port, error));
        const auto hasEnded = [](const auto& connection) { return connection->HasEnded(); };
        connections.erase(std::remove_if(connections.begin(), connections.end(), hasEnded), connections.end());
        if (!accepted) {
            Internal::ThreadServiceBase::Sleep(100);  // no descriptor is free, and Poll would return at once
            continue;
        }
        try {
            connections.push_back(std::make_unique<Connection>(*ServiceFactory::GetInstance(), std::move(accepted)));
        } catch (const Exceptions::VeException& exception) {
            std::cerr << exception.GetMessage() << "\n";  // no more threads: the client's connection is closed
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
    std::vector<Owned<Socket>> clients;  // still connected when the server ends
    for (const char* const question : {"how do", "you do", "server"}) {
        Socket& client = *clients.emplace_back(MakeSocket(factory));
        if (client.Connect(loopback, port) == 0 && SendLine(client, question)) {
            answers += ReceiveLine(client).value_or("nothing") + " ";
        }
    }
    listener->Shutdown();
    server->Join();
    std::cout << answers << "\n";
    return answers == "HOW DO YOU DO SERVER ";
}

}  // namespace

int main() {
    const Adapters::Runtime runtime;
    return Run(*runtime) ? 0 : 1;
}
