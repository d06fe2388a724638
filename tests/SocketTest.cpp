#include "support/TemporaryFolder.h"
#include "support/Test.h"
#include "support/UniqueName.h"

#include <Kel/System/Ve/Internal/Linux/FileDescriptor.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <map>

namespace {

using Type = ISocketService::SocketType;
using Domain = ISocketService::SocketDomain;
using Blocking = ISocketService::SocketBlockingMode;
using Option = ISocketService::SocketOptionName;
using SelectMode = ISocketService::SelectMode;
using PollMode = ISocketService::PollMode;
using ShutdownMode = ISocketService::ShutdownMode;
using Error = ISocketService::SocketError;
using Socket = std::unique_ptr<ISocketService>;

constexpr unsigned int withoutLimit = 0xFFFFFFFF;
const unsigned int loopback = htonl(INADDR_LOOPBACK);

// The results of the operations that tell an error beside it, with that error.
using Result = std::pair<int, Error>;
constexpr Result ready{1, Error::Success};
constexpr Result reset{1, Error::ConnReset};
constexpr Result closed{-1, Error::NotSock};

Result Send(ISocketService& socket, const std::string& text) {
    Error error{};
    const int count = socket.Send(text.data(), static_cast<unsigned int>(text.size()), error);
    return {count, error};
}

Result SendTo(ISocketService& socket, const std::string& text, int port) {
    Error error{};
    const int count = socket.SendTo(text.data(), static_cast<unsigned int>(text.size()), error, loopback, port);
    return {count, error};
}

Result Poll(ISocketService& socket, PollMode mode, unsigned int timeoutMs = 60000) {
    Error error{};
    const int result = socket.Poll(mode, timeoutMs, error);
    return {result, error};
}

Result Select(ISocketService& socket, SelectMode mode, unsigned int timeoutUs = 60000000) {
    Error error{};
    const int result = socket.Select(mode, timeoutUs, error);
    return {result, error};
}

/// What comes next, or the number of the error.
std::string Receive(ISocketService& socket) {
    std::array<char, 100> buffer;
    Error error{};
    const int count = socket.Recv(buffer.data(), buffer.size(), error);
    return count == -1 ? std::to_string(static_cast<int>(error))
                       : std::string(buffer.data(), static_cast<unsigned>(count));
}

int Number(Error error) { return static_cast<int>(error); }

/// Binds to a path by other means.
int BindToPath(int descriptor, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy_n(path.data(), std::min(path.size(), sizeof address.sun_path), address.sun_path);
    return bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

bool ClosesOnExec(const ISocketService& socket) { return fcntl(socket.GetSocketDescriptor(), F_GETFD) == FD_CLOEXEC; }
bool Blocks(const ISocketService& socket) { return (fcntl(socket.GetSocketDescriptor(), F_GETFL) & O_NONBLOCK) == 0; }

class SocketTest : public FactoryTest {
protected:
    Socket Make(Type type, Domain domain = Domain::Ipv4, Blocking blocking = Blocking::Blocking) {
        return Socket(factory->CreateSocket(type, domain, blocking));
    }

    /// A socket on a port of its own of the loopback interface; a stream socket listens there.
    Socket Bound(Type type, int& port, Blocking blocking = Blocking::Blocking) {
        Socket socket = Make(type, Domain::Ipv4, blocking);
        port = 0;
        EXPECT_EQ(socket->Bind(loopback, port), 0);
        EXPECT_EQ(socket->Listen(1), type == Type::Stream ? 0 : Number(Error::OpNotSupp));
        return socket;
    }

    /// A socket that listens on the name.
    Socket ListeningOnName() {
        Socket listener = Make(Type::Stream, Domain::Local);
        EXPECT_EQ(listener->Bind(name), 0);
        EXPECT_EQ(listener->Listen(1), 0);
        return listener;
    }

    static Socket Accept(ISocketService& listener, BasicString* peer = nullptr) {
        Error error = Error::Unclassified;
        BasicString unused = "old";
        Socket server(listener.Accept(peer != nullptr ? *peer : unused, error));
        EXPECT_EQ(error, server ? Error::Success : Error::WouldBlock);
        return server;
    }

    /// The two ends of a TCP connection.
    struct Connection {
        Socket client;
        Socket server;
    };

    Connection Connect() {
        int port = 0;
        const Socket listener = Bound(Type::Stream, port);
        EXPECT_EQ(Poll(*listener, PollMode::Acceptable, 0), Result(0, Error::TimedOut));
        Connection connection{Make(Type::Stream), nullptr};
        EXPECT_EQ(connection.client->Connect(loopback, port), 0);
        EXPECT_EQ(Poll(*listener, PollMode::Acceptable).first, 1);
        EXPECT_EQ(Select(*listener, SelectMode::Acceptable), ready);
        unsigned int address = 0;
        int peerPort = 0;
        Error error = Error::Unclassified;
        connection.server.reset(listener->Accept(address, peerPort, error));
        EXPECT_EQ(error, Error::Success);
        EXPECT_EQ(address, loopback);
        sockaddr_in own{};
        socklen_t length = sizeof own;
        getsockname(connection.client->GetSocketDescriptor(), reinterpret_cast<sockaddr*>(&own), &length);
        EXPECT_EQ(peerPort, ntohs(own.sin_port));
        EXPECT_TRUE(ClosesOnExec(*connection.client) && ClosesOnExec(*connection.server));
        EXPECT_EQ(Poll(*connection.client, PollMode::Writable), ready);
        EXPECT_EQ(Select(*connection.client, SelectMode::Connected), ready);
        return connection;
    }

    const BasicString name = UniqueName("socket");
    const TemporaryFolder folder;
};

TEST_F(SocketTest, DatagramsCarryTheirSender) {
    int port = 0;
    int senderPort = 0;
    const Socket receiver = Bound(Type::Datagram, port);
    const Socket sender = Bound(Type::Datagram, senderPort);
    Error error = Error::Unclassified;
    char buffer[10];
    unsigned int address = 0;
    int from = 0;
    EXPECT_EQ(SendTo(*sender, "hello", port), Result(5, Error::Success));
    EXPECT_EQ(receiver->RecvFrom(buffer, sizeof buffer, error, address, from), 5);
    EXPECT_EQ(address, loopback);
    EXPECT_EQ(from, senderPort);
    // An empty one looks like a closed connection to Poll, but not to Recv.
    EXPECT_EQ(SendTo(*sender, "", port), Result(0, Error::Success));
    EXPECT_EQ(Poll(*receiver, PollMode::Readable), reset);
    EXPECT_EQ(Receive(*receiver), "");

    receiver->SetOptionBlocking(false);
    EXPECT_EQ(receiver->RecvFrom(buffer, sizeof buffer, error, address, from), -1);
    EXPECT_EQ(error, Error::WouldBlock);
    EXPECT_EQ(from, senderPort);
    EXPECT_EQ(SendTo(*sender, std::string(100000, 'x'), port), Result(-1, Error::MsgSize));
    receiver->Close();
    EXPECT_EQ(sender->Connect(loopback, port), 0);
    EXPECT_EQ(Send(*sender, "x"), Result(1, Error::Success));
    EXPECT_EQ(Poll(*sender, PollMode::Readable), Result(-1, Error::Unclassified));
    EXPECT_EQ(Send(*sender, "x"), Result(-1, Error::ConnRefused));
}

TEST_F(SocketTest, LocalNamesAreAbstract) {
    const Socket listener = ListeningOnName();
    EXPECT_FALSE(std::filesystem::exists(std::string(name)));
    EXPECT_EQ(Make(Type::Stream, Domain::Local)->Bind(name), Number(Error::AddrInUse));
    const Socket client = Make(Type::Stream, Domain::Local);
    EXPECT_EQ(client->Connect(name + "-none"), Number(Error::ConnRefused));
    EXPECT_EQ(client->Connect(name), 0);
    BasicString peer = "old";
    const Socket server = Accept(*listener, &peer);
    EXPECT_EQ(peer, "");
    EXPECT_EQ(Send(*server, "x"), Result(1, Error::Success));
    EXPECT_EQ(Receive(*client), "x");

    // 106 characters count.
    const BasicString longName = name + std::string(106 - name.size(), 'x');
    const Socket receiver = Make(Type::Datagram, Domain::Local);
    EXPECT_EQ(receiver->Bind(longName + "and more"), 0);
    const Socket sender = Make(Type::Datagram, Domain::Local);
    EXPECT_EQ(sender->Connect(longName.substr(0, 105)), Number(Error::ConnRefused));
    EXPECT_EQ(sender->Connect(longName + "or other"), 0);

    for (const auto& [size, expected] :
         {std::pair(0U, "......"), {1U, "......"}, {2U, "......"}, {3U, ".a...."}, {5U, ".abc.."}}) {
        std::string buffer = "......";
        SocketService::MakeAbstract(buffer.data(), size, "abcdef");
        EXPECT_EQ(buffer, expected);
    }
}

TEST_F(SocketTest, SocketFilesAreConnectedToAndRemovedByWhoIsBoundToThem) {
    // Bound by other means; the second path fills its place to the last byte.
    const std::string path = folder / std::string(107 - (folder / "").size(), 'r');
    const std::string longPath = folder / std::string(108 - (folder / "").size(), 'x');
    const FileDescriptor receiver(socket(AF_UNIX, SOCK_DGRAM, 0));
    ASSERT_EQ(BindToPath(receiver.Get(), path), 0);
    const Socket sender(factory->CreateNonAbstractIpcSocket());
    EXPECT_TRUE(Blocks(*sender));
    EXPECT_EQ(sender->Connect(path), 0);
    EXPECT_EQ(Send(*sender, "x"), Result(1, Error::Success));
    EXPECT_EQ(sender->Close(), 0);
    EXPECT_TRUE(std::filesystem::exists(path));

    const Socket bound = Make(Type::Stream, Domain::Local);
    ASSERT_EQ(BindToPath(bound->GetSocketDescriptor(), longPath), 0);
    const Socket listener = ListeningOnName();
    EXPECT_EQ(bound->Connect(name), 0);
    BasicString peer;
    Accept(*listener, &peer);
    EXPECT_EQ(peer, longPath);
    ASSERT_TRUE(std::filesystem::remove(longPath));
    EXPECT_TRUE(Throws([&] { bound->Close(); }, "Could not unlink socket file."));
    // Still open.
    EXPECT_EQ(Select(*bound, SelectMode::Writable).first, 1);
    std::ofstream(longPath) << "";
    EXPECT_EQ(bound->Close(), 0);
    EXPECT_FALSE(std::filesystem::exists(longPath));

    // One that was taken over is nobody's to remove.
    int descriptor = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(BindToPath(descriptor, longPath), 0);
    EXPECT_EQ(Socket(factory->CreateSocket(&descriptor))->Close(), 0);
    EXPECT_TRUE(std::filesystem::exists(longPath));
}

TEST_F(SocketTest, UnlinkTakesNoAddressForAPath) {
    EXPECT_TRUE(SucceedsInChild([this] {
        // What a port would be as a path.
        folder.Write("ab", "");
        EXPECT_EQ(chdir((folder / "").c_str()), 0);
        SocketService socket(Type::Stream, Domain::Ipv4, Blocking::Blocking, true);
        int port = 'a' * 256 + 'b';
        EXPECT_EQ(socket.Bind(0, port), 0);
        socket.Unlink();
        EXPECT_TRUE(std::filesystem::exists("ab"));
    }));
}

TEST_F(SocketTest, EndOfThePeerIsSeen) {
    const std::tuple<const char*, std::function<void(ISocketService&)>, std::string> table[] = {
        {"closes", [](ISocketService& socket) { socket.Close(); }, ""},
        {"half-closes", [](ISocketService& socket) { socket.Shutdown(ShutdownMode::Send); }, ""},
        {"resets",
         [](ISocketService& socket) {
             const linger atOnce{1, 0};
             setsockopt(socket.GetSocketDescriptor(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
             socket.Close();
         },
         "10054"}};
    for (const auto& [what, end, received] : table) {
        SCOPED_TRACE(what);
        const auto [client, server] = Connect();
        end(*server);
        EXPECT_EQ(Poll(*client, PollMode::Readable), reset);
        EXPECT_EQ(Poll(*client, PollMode::Writable), reset);
        EXPECT_EQ(Select(*client, SelectMode::Readable), ready);
        EXPECT_EQ(Receive(*client), received);
    }
    const auto [client, server] = Connect();
    server->Shutdown(ShutdownMode::Send);
    EXPECT_EQ(Receive(*client), "");
    EXPECT_EQ(Send(*client, "still"), Result(5, Error::Success));
    EXPECT_EQ(Receive(*server), "still");
    EXPECT_EQ(Send(*server, "x"), Result(-1, Error::NotConn));
    // The byte that was not read makes it a reset.
    Send(*client, "x");
    server->Close();
    EXPECT_EQ(Send(*client, "x"), Result(-1, Error::NotConn));
    EXPECT_EQ(SendTo(*client, "x", 1), Result(-1, Error::NotConn));
}

TEST_F(SocketTest, PollJudgesWhatTheSystemReports) {
    const auto [client, server] = Connect();
    const Result shut{1, Error::Shutdown};
    const Result unclassified{-1, Error::Unclassified};
    const Result notSupported{-1, Error::VerNotSupported};
    // The second result is that after a Shutdown by this side.
    const std::tuple<int, Result, Result> table[] = {{POLLIN, ready, shut},
                                                     {POLLRDNORM, ready, shut},
                                                     {POLLRDBAND, ready, shut},
                                                     {POLLOUT, ready, shut},
                                                     {POLLWRNORM, ready, shut},
                                                     {POLLWRBAND, ready, shut},
                                                     {POLLIN | POLLHUP, reset, shut},
                                                     {POLLHUP, reset, reset},
                                                     {POLLHUP | POLLNVAL | POLLERR, reset, reset},
                                                     {POLLNVAL, closed, closed},
                                                     {POLLNVAL | POLLERR, closed, closed},
                                                     {POLLPRI, unclassified, unclassified},
                                                     {POLLERR | POLLRDHUP, unclassified, unclassified},
                                                     {POLLIN | POLLRDHUP, reset, reset},
                                                     {0, unclassified, unclassified},
                                                     {POLLIN | POLLRDBAND, notSupported, notSupported}};
    for (const bool isShutdown : {false, true}) {
        for (const auto& [events, result, afterShutdown] : table) {
            int asked = 0;
            const FailingCall call("poll", 1, [&, events = events](void* polled) {
                asked = static_cast<pollfd*>(polled)->events;
                static_cast<pollfd*>(polled)->revents = static_cast<short>(events);
            });
            EXPECT_EQ(Poll(*client, PollMode::Acceptable), isShutdown ? afterShutdown : result)
                << events << (isShutdown ? " after Shutdown" : "");
            EXPECT_EQ(asked, POLLIN | POLLRDBAND);
        }
        // Known before it happens.
        const FailingCall call("shutdown",
                               [&, &polling = client] { EXPECT_EQ(Poll(*polling, PollMode::Writable), shut); });
        client->Shutdown(ShutdownMode::Receive);
    }
    const FailingCall call("poll", -2, EINTR);
    EXPECT_EQ(Poll(*client, PollMode::Readable), unclassified);
}

TEST_F(SocketTest, ShutdownWakesWhoPolls) {
    const Connection connection = Connect();
    std::thread other([&] {
        EXPECT_EQ(Poll(*connection.client, PollMode::Readable, withoutLimit), Result(1, Error::Shutdown));
        EXPECT_EQ(Select(*connection.client, SelectMode::Readable, withoutLimit), ready);
        EXPECT_EQ(Poll(*connection.client, PollMode::Writable), reset);
    });
    EXPECT_EQ(connection.client->Shutdown(), 0);
    other.join();
    EXPECT_EQ(Make(Type::Stream)->Shutdown(), Number(Error::NotConn));
}

TEST_F(SocketTest, NonBlockingNeverWaits) {
    const auto [client, server] = Connect();
    EXPECT_EQ(Select(*server, SelectMode::Readable, 0), Result(0, Error::Success));
    EXPECT_EQ(client->SetOptionBlocking(false), 0);
    EXPECT_EQ(Receive(*client), "10035");
    Result sent = ready;
    while (sent.first > 0) {
        sent = Send(*client, std::string(1 << 20, 'x'));
    }
    EXPECT_EQ(sent, Result(-1, Error::WouldBlock));
    EXPECT_EQ(Poll(*client, PollMode::Writable, 0), Result(0, Error::TimedOut));
    EXPECT_EQ(Select(*client, SelectMode::Writable, 0), Result(0, Error::Success));
    EXPECT_EQ(client->SetOptionBlocking(true), 0);
    EXPECT_TRUE(Blocks(*client));

    int port = 0;
    const Socket listener = Bound(Type::Stream, port, Blocking::NonBlocking);
    unsigned int address = 1;
    int peerPort = 0;
    Error error{};
    EXPECT_EQ(listener->Accept(address, peerPort, error), nullptr);
    EXPECT_EQ(error, Error::WouldBlock);
    EXPECT_EQ(Accept(*listener), nullptr);
    const Socket connecting = Make(Type::Stream, Domain::Ipv4, Blocking::NonBlocking);
    EXPECT_EQ(connecting->Connect(loopback, port), Number(Error::InProgress));
    EXPECT_EQ(Poll(*connecting, PollMode::Connected), ready);
}

TEST_F(SocketTest, TimeoutsAreKept) {
    int port = 0;
    const Socket socket = Bound(Type::Datagram, port);
    const auto select = [&](SelectMode mode, unsigned int timeoutUs) {
        EXPECT_TRUE(Takes(milliseconds(timeoutUs / 1000),
                          [&] { EXPECT_EQ(Select(*socket, mode, timeoutUs), Result(0, Error::Success)); }));
    };
    select(SelectMode::Readable, 30000);
    select(SelectMode::TimeoutOnly, 30000);
    select(static_cast<SelectMode>(9), 1030000);
    EXPECT_TRUE(
        Takes(milliseconds(30), [&] { EXPECT_EQ(Poll(*socket, PollMode::Readable, 30), Result(0, Error::TimedOut)); }));
}

TEST_F(SocketTest, OptionsReachTheSystem) {
    const Socket socket = Make(Type::Stream);
    // As a time or, in its first part, as a number.
    const auto valueOf = [&](int level, int option) {
        timeval value{};
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(socket->GetSocketDescriptor(), level, option, &value, &length), 0);
        return value.tv_sec;
    };
    const std::tuple<Option, int, int> table[] = {{Option::TcpNoDelay, IPPROTO_TCP, TCP_NODELAY},
                                                  {Option::ReuseAddress, SOL_SOCKET, SO_REUSEADDR},
                                                  {Option::KeepAlive, SOL_SOCKET, SO_KEEPALIVE},
                                                  {Option::Broadcast, SOL_SOCKET, SO_BROADCAST},
                                                  {Option::TcpKeepAliveIdle, IPPROTO_TCP, TCP_KEEPIDLE},
                                                  {Option::TcpKeepAliveInterval, IPPROTO_TCP, TCP_KEEPINTVL},
                                                  {Option::TcpKeepAliveCount, IPPROTO_TCP, TCP_KEEPCNT},
                                                  {Option::ReceiveTimeout, SOL_SOCKET, SO_RCVTIMEO},
                                                  {Option::SendTimeout, SOL_SOCKET, SO_SNDTIMEO}};
    for (const auto& [option, level, systemName] : table) {
        timeval value{3, 500000};
        const auto before = valueOf(level, systemName);
        EXPECT_EQ(socket->SetSockOpt(option, &value, sizeof value), 0);
        EXPECT_NE(valueOf(level, systemName), before);
        value = {};
        unsigned int length = sizeof value + 1;
        EXPECT_EQ(socket->GetSockOpt(option, &value, &length), 0);
        EXPECT_EQ(value.tv_sec, valueOf(level, systemName));
        EXPECT_EQ(length, sizeof value + 1);
    }

    // The getters give the result of the query.
    const std::tuple<int (ISocketService::*)(int), int (ISocketService::*)(int&), int> keepAlive[] = {
        {&ISocketService::SetOptionKeepAliveIdleTime, &ISocketService::GetOptionKeepAliveIdleTime, TCP_KEEPIDLE},
        {&ISocketService::SetOptionKeepAliveProbeInterval, &ISocketService::GetOptionKeepAliveProbeInterval,
         TCP_KEEPINTVL},
        {&ISocketService::SetOptionKeepAliveProbeCount, &ISocketService::GetOptionKeepAliveProbeCount, TCP_KEEPCNT}};
    for (const auto& [set, get, systemName] : keepAlive) {
        EXPECT_EQ((*socket.*set)(7), 0);
        EXPECT_EQ(valueOf(IPPROTO_TCP, systemName), 7);
        int value = 7;
        EXPECT_EQ((*socket.*get)(value), 0);
        EXPECT_EQ(value, 0);
        EXPECT_EQ((*socket.*set)(-1), Number(Error::Inval));
        value = 7;
        EXPECT_NE((*Make(Type::Datagram).*get)(value), 0);
        EXPECT_EQ(value, 7);
    }

    // Refused for want of a level, not of a name.
    bool enable = true;
    unsigned int value = 7;
    unsigned int length = 8;
    for (const int refused :
         {socket->SetOptionLinger(true, 1), socket->GetOptionLinger(enable, value), socket->SetOptionUserTimeout(1),
          socket->GetOptionUserTimeout(value), socket->SetSockOpt(static_cast<Option>(2), &value, 4),
          socket->GetSockOpt(Option::Linger, &value, &length)}) {
        EXPECT_EQ(refused, -1);
    }
    EXPECT_TRUE(enable);
    EXPECT_EQ(value, 7U);
    EXPECT_EQ(SocketService::GetLinuxSocketOptionName(Option::Linger), SO_LINGER);
    EXPECT_EQ(SocketService::GetLinuxSocketOptionName(Option::TcpUserTimeout), TCP_USER_TIMEOUT);
}

TEST_F(SocketTest, BadArgumentsAreRefused) {
    const std::string domain = "GetPosixSocketDomain: Could not determine socket domain, invalid value.";
    for (const int value : {0, 2, 4}) {
        EXPECT_TRUE(Throws([&] { Make(static_cast<Type>(9), static_cast<Domain>(value)); }, domain));
    }
    for (const int value : {0, 3}) {
        EXPECT_TRUE(Throws([&] { Make(static_cast<Type>(value)); },
                           "GetPosixSocketType: Could not determine socket type, invalid value."));
    }
    const Socket socket = Make(Type::Datagram);
    for (int port : {65536, -1}) {
        EXPECT_EQ(socket->Bind(loopback, port), Number(Error::Inval));
        EXPECT_EQ(socket->Connect(loopback, port), Number(Error::Inval));
        EXPECT_EQ(SendTo(*socket, "x", port), Result(-1, Error::Inval));
    }
    int port = 0;
    EXPECT_EQ(socket->Bind(htonl(0x08080808), port), Number(Error::AddrNotAvail));
    for (const int mode : {0, 5}) {
        EXPECT_EQ(Poll(*socket, static_cast<PollMode>(mode), withoutLimit), Result(-1, Error::Inval));
    }
    EXPECT_EQ(Send(*socket, "x"), Result(-1, Error::DestAddrReq));
    // Any other mode blocks.
    EXPECT_TRUE(Blocks(*Make(Type::Stream, Domain::Ipv4, static_cast<Blocking>(3))));

    // One that was taken over has no domain, and a null handle no descriptor.
    int descriptor = dup(socket->GetSocketDescriptor());
    for (void* const handle : {static_cast<void*>(&descriptor), static_cast<void*>(nullptr)}) {
        const Socket adopted(factory->CreateSocket(handle));
        EXPECT_EQ(adopted->GetSocketDescriptor(), handle != nullptr ? descriptor : -1);
        EXPECT_EQ(ClosesOnExec(*adopted), handle != nullptr);
        const std::function<void()> refused[] = {[&] { adopted->Bind(loopback, port); }, [&] { adopted->Bind(name); },
                                                 [&] { adopted->Connect(loopback, port); },
                                                 [&] { adopted->Connect(name); }, [&] { SendTo(*adopted, "x", 1); }};
        for (const auto& operation : refused) {
            EXPECT_TRUE(Throws(operation, domain));
        }
    }
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(SocketTest, ClosedSocketTouchesNoOtherThatHasItsNumber) {
    const auto [client, server] = Connect();
    const int descriptor = client->GetSocketDescriptor();
    EXPECT_EQ(client->Close(), 0);
    EXPECT_EQ(client->GetSocketDescriptor(), -1);
    std::vector<Socket> others;
    do {
        others.push_back(Make(Type::Datagram));
    } while (others.back()->GetSocketDescriptor() < descriptor);
    ASSERT_EQ(others.back()->GetSocketDescriptor(), descriptor);
    EXPECT_EQ(client->Close(), 0);
    EXPECT_EQ(Select(*client, SelectMode::TimeoutOnly, withoutLimit), closed);
    EXPECT_EQ(Poll(*client, PollMode::Readable, withoutLimit), closed);
    EXPECT_EQ(Send(*client, "x"), Result(-1, Error::Unclassified));
    EXPECT_EQ(Receive(*client), "-1");
    EXPECT_EQ(client->Shutdown(), -1);
    EXPECT_EQ(client->SetOptionBlocking(false), -1);
    EXPECT_TRUE(Throws([&socket = dynamic_cast<SocketService&>(*client)] { socket.Unlink(); },
                       "Could not query if local domain is bound to a file."));
    EXPECT_NE(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(SocketTest, CloseThatOvertakesAnOperationIsReportedAsClosed) {
    const std::pair<const char*, std::function<Result(ISocketService&)>> table[] = {
        {"select", [](auto& socket) { return Select(socket, SelectMode::Readable); }},
        {"select", [](auto& socket) { return Select(socket, SelectMode::TimeoutOnly, 0); }},
        {"poll", [](auto& socket) { return Poll(socket, PollMode::Readable); }},
        {"recv", [](auto& socket) { return Poll(socket, PollMode::Readable); }}};
    for (const auto& [function, operation] : table) {
        const Connection connection = Connect();
        Send(*connection.server, "x");
        Socket successor;
        const FailingCall call(function, [&] {
            connection.client->Close();
            // Its number belongs to a socket that would never be ready.
            successor = Make(Type::Datagram);
        });
        EXPECT_EQ(operation(*connection.client), closed) << function;
    }
    // Two that close at the same time close once, and nobody uses a number that is free.
    for (const std::string function : {"getsockname", "close"}) {
        const Socket socket = Make(Type::Stream, Domain::Local);
        const FailingCall overtaken(function.c_str(), [&] {
            EXPECT_EQ(socket->Close(), 0);
            EXPECT_EQ(socket->GetSocketDescriptor() == -1, function == "close");
        });
        EXPECT_EQ(socket->Close(), 0);
    }
}

TEST_F(SocketTest, SocketThatCouldNotBeMadeFailsEverything) {
    const FailingCall call("socket", -1, EMFILE);
    const Socket socket = Make(Type::Stream);
    for (const auto mode : {SelectMode::Readable, SelectMode::Writable, SelectMode::TimeoutOnly}) {
        EXPECT_EQ(Select(*socket, mode, withoutLimit), Result(-1, Error::Unclassified));
    }
    EXPECT_TRUE(Takes(milliseconds(2),
                      [&] { EXPECT_EQ(Select(*socket, SelectMode::TimeoutOnly, 2000), Result(0, Error::Success)); }));
    EXPECT_EQ(Poll(*socket, PollMode::Readable, withoutLimit), closed);
    EXPECT_EQ(Poll(*socket, PollMode::Readable, 1), Result(0, Error::TimedOut));
    EXPECT_EQ(socket->Close(), 0);
}

// A request to be cancelled that has not been met yet.
TEST_F(SocketTest, CancellationLosesNoDescriptor) {
    bool isOver = false;
    std::thread([&] {
        const auto makeFile = [this](const std::string& fileName) {
            std::unique_ptr<IFileService> file(factory->CreateFile(folder / fileName, IFileService::FileMode::Create,
                                                                   IFileService::FileAccess::Write, true));
            file->Write(reinterpret_cast<const unsigned char*>("x"), 0, 1);
            return file;
        };
        const Socket socket = Make(Type::Stream);
        Socket deleted = Make(Type::Stream, Domain::Local);
        const std::unique_ptr<ISharedMemoryService> memory(
            factory->CreateSharedMemory(name, 1, ISharedMemoryService::mode::Create));
        const auto file = makeFile("file");
        auto deletedFile = makeFile("other");
        const std::ptrdiff_t open = OpenDescriptors();

        pthread_cancel(pthread_self());
        socket->Close();
        deleted.reset();
        memory->Close();
        file->Close();
        deletedFile.reset();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        EXPECT_EQ(OpenDescriptors(), open - 5);
        EXPECT_EQ(folder.Read("file") + folder.Read("other"), "xx");
        shm_unlink(name.c_str());
        isOver = true;
    }).join();
    EXPECT_TRUE(isOver);
}

TEST_F(SocketTest, AThousandAreOpenAtOnce) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit before = limit;
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 2000);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::vector<Socket> sockets;
    int port = 0;
    // Beyond what an fd_set has a place for.
    while (sockets.empty() || sockets.back()->GetSocketDescriptor() < 1100) {
        sockets.push_back(Bound(Type::Datagram, port));
    }
    ISocketService& last = *sockets.back();
    // User-mode emulation ends itself at a select with such a descriptor.
    const bool selects = !IsEmulated();
    if (selects) {
        EXPECT_EQ(Select(last, SelectMode::Readable, 0), Result(0, Error::Success));
    }
    SendTo(*sockets.front(), "x", port);
    if (selects) {
        EXPECT_EQ(Select(last, SelectMode::Readable), ready);
        EXPECT_EQ(Select(last, SelectMode::Writable), ready);
    }
    EXPECT_EQ(Poll(last, PollMode::Readable), ready);
    sockets.clear();
    setrlimit(RLIMIT_NOFILE, &before);
}

// Runs socat with these arguments, and with `descriptor`, if there is one, passed on to it.
class Socat : public Child {
public:
    explicit Socat(std::vector<std::string> arguments, int descriptor = -1)
        : Child([=]() mutable {
              fcntl(descriptor, F_SETFD, 0);
              std::vector<char*> vector{const_cast<char*>("socat")};
              for (std::string& argument : arguments) {
                  vector.push_back(argument.data());
              }
              vector.push_back(nullptr);
              execvp(vector[0], vector.data());
              return 127;
          }) {}
};

TEST_F(SocketTest, TalksToProgramsThatKnowNothingOfIt) {
    if (!Succeeds("socat -V")) {
        GTEST_SKIP() << "needs socat";
    }
    const auto expectEcho = [](ISocketService& socket) {
        EXPECT_EQ(Send(socket, "echo").first, 4);
        EXPECT_EQ(Poll(socket, PollMode::Readable).first, 1);
        EXPECT_EQ(Receive(socket), "echo");
    };
    int port = 0;
    const Socket listener = Bound(Type::Stream, port);
    const Socket localListener = ListeningOnName();
    for (const auto& [address, accepting] :
         {std::pair("TCP:127.0.0.1:" + std::to_string(port), listener.get()),
          {"ABSTRACT-CONNECT:" + name + ",unix-tightsocklen=0", localListener.get()}}) {
        Socat client({address, "PIPE"});
        const Socket server = Accept(*accepting);
        ASSERT_TRUE(server);
        expectEcho(*server);
        server->Close();
        EXPECT_EQ(client.Wait(), 0);
    }
    // Its servers get a socket that is ready, so that nobody has to wait for them.
    const auto serve = [](int descriptor) {
        return std::vector<std::string>{"FD:" + std::to_string(descriptor), "PIPE"};
    };
    {
        const auto [client, server] = Connect();
        Socat answering(serve(server->GetSocketDescriptor()), server->GetSocketDescriptor());
        expectEcho(*client);
        client->Shutdown(ShutdownMode::Send);
        EXPECT_EQ(answering.Wait(), 0);
    }
    {
        int serverPort = 0;
        const Socket client = Bound(Type::Datagram, port);
        const Socket server = Bound(Type::Datagram, serverPort);
        EXPECT_EQ(client->Connect(loopback, serverPort), 0);
        EXPECT_EQ(server->Connect(loopback, port), 0);
        const Socat answering(serve(server->GetSocketDescriptor()), server->GetSocketDescriptor());
        expectEcho(*client);
    }
    const FileDescriptor raw(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(BindToPath(raw.Get(), folder / "server"), 0);
    const Socket client(factory->CreateNonAbstractIpcSocket());
    EXPECT_EQ(client->Connect(folder / "server"), 0);
    EXPECT_EQ(Send(*client, "path").first, 4);
    Socat reading({"-u", "FD:" + std::to_string(raw.Get()) + ",readbytes=4", "CREATE:" + (folder / "received")},
                  raw.Get());
    EXPECT_EQ(reading.Wait(), 0);
    EXPECT_EQ(folder.Read("received"), "path");
}

TEST(SocketErrorTest, SystemErrorsHaveWindowsNumbers) {
    const std::map<int, int> numbers{
        {0, 0},       {4, 10004},   {11, 10035},  {22, 10022},  {32, 10057},  {89, 10039},  {90, 10040},  {92, 10042},
        {95, 10045},  {97, 10047},  {98, 10048},  {99, 10049},  {103, 10053}, {104, 10054}, {105, 10055}, {106, 10056},
        {107, 10057}, {108, 10058}, {110, 10060}, {111, 10061}, {112, 10064}, {113, 10065}, {114, 10037}, {115, 10036}};
    for (int error = -1; error < 200; ++error) {
        const auto found = numbers.find(error);
        EXPECT_EQ(Number(SocketService::TranslateError(error)), found != numbers.end() ? found->second : -1) << error;
    }
}

}  // namespace
