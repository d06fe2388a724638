#pragma once

#include "TwoThreads.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <vector>

/// The descriptors of two sockets that are connected to each other; only local ones and IPv4.
using SocketPair = std::array<int, 2>;
SocketPair ConnectedSockets(int domain, int type);

/// Two sockets, of what each way makes of a descriptor, and messages of a length for each direction, which are sent and
/// received in pieces. A socket has `Send` and `Receive`, which return a count, and owns its descriptor.
template <typename Socket>
class SocketChannel {
public:
    static constexpr std::size_t piece = 65536;

    SocketChannel(int domain, int type, std::size_t lengthThere, std::size_t lengthBack)
        : SocketChannel(ConnectedSockets(domain, type), lengthThere, lengthBack) {}

    void Send(int side) {
        for (std::size_t sent = 0; sent < lengths[side]; sent += piece) {
            const std::size_t length = std::min(lengths[side], piece);
            Expect(static_cast<std::size_t>(sockets[side].Send(buffers[side].data(), length)) == length);
        }
    }
    void Receive(int side) {
        std::size_t received = 0;
        while (received < lengths[1 - side]) {
            const auto count = sockets[side].Receive(buffers[side].data(), piece);
            Expect(count > 0);
            received += static_cast<std::size_t>(count);
        }
    }

private:
    SocketChannel(const SocketPair& pair, std::size_t lengthThere, std::size_t lengthBack)
        : sockets{Socket(pair[0]), Socket(pair[1])}, lengths{lengthThere, lengthBack} {}

    Socket sockets[2];
    std::size_t lengths[2];
    std::vector<char> buffers[2] = {std::vector<char>(piece), std::vector<char>(piece)};
};

/// All transfers between two threads over stream sockets, `StreamSocket`, and datagram sockets, `DatagramSocket`.
template <typename StreamSocket, typename DatagramSocket>
void RegisterTransfers(const std::string& way) {
    constexpr std::size_t message = 64;
    constexpr std::size_t much = std::size_t{1} << 20U;
    const auto stream = [](int domain, std::size_t lengthThere, std::size_t lengthBack) {
        return [=] { return SocketChannel<StreamSocket>(domain, SOCK_STREAM, lengthThere, lengthBack); };
    };
    const auto datagram = [](int domain) {
        return [=] { return SocketChannel<DatagramSocket>(domain, SOCK_DGRAM, message, message); };
    };
    RegisterPingPong("socket/TCP ping-pong", way, stream(AF_INET, message, message));
    RegisterPingPong("socket/UDP ping-pong", way, datagram(AF_INET));
    RegisterPingPong("socket/local stream ping-pong", way, stream(AF_UNIX, message, message));
    RegisterPingPong("socket/local datagram ping-pong", way, datagram(AF_UNIX));
    // Answered by a byte when all has arrived.
    RegisterPingPong("socket/TCP 1 MiB", way, stream(AF_INET, much, 1));
    RegisterPingPong("socket/local stream 1 MiB", way, stream(AF_UNIX, much, 1));
}

/// One datagram after the other from one socket to another, in one thread.
template <typename Socket>
void RegisterSendAndReceive(const std::string& way) {
    RegisterRun("socket/send and receive 64 bytes/" + way, [](benchmark::State& state) {
        SocketChannel<Socket> channel(AF_INET, SOCK_DGRAM, 64, 64);
        for (auto _ : state) {
            channel.Send(0);
            channel.Receive(1);
        }
    });
}

/// `look(socket)` at a socket at which a message is waiting.
template <typename Socket, typename Look>
void RegisterReady(const std::string& name, Look look) {
    RegisterRun(name, [look](benchmark::State& state) {
        const SocketPair pair = ConnectedSockets(AF_INET, SOCK_DGRAM);
        Socket sender(pair[0]);
        Socket receiver(pair[1]);
        Expect(sender.Send("x", 1) == 1);
        for (auto _ : state) {
            look(receiver);
        }
    });
}
