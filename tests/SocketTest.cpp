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
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <fstream>
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

class SocketTest : public FactoryTest {
protected:
    Socket Make(Type type, Domain domain = Domain::Ipv4, Blocking blocking = Blocking::Blocking) {
        return Socket(factory->CreateSocket(type, domain, blocking));
    }

    /// A socket on a port of its own of the loopback interface.
    Socket Bound(Type type, int& port) {
        Socket socket = Make(type);
        port = 0;
        EXPECT_EQ(socket->Bind(loopback, port), 0);
        return socket;
    }

    /// The two ends of a TCP connection.
    struct Connection {
        Socket client;
        Socket server;
    };

    Connection Connect() {
        int port = 0;
        const Socket listener = Bound(Type::Stream, port);
        EXPECT_EQ(listener->Listen(1), 0);
        Connection connection{Make(Type::Stream), nullptr};
        EXPECT_EQ(connection.client->Connect(loopback, port), 0);
        unsigned int address = 0;
        Error error = Error::Unclassified;
        connection.server.reset(listener->Accept(address, port, error));
        EXPECT_EQ(error, Error::Success);
        return connection;
    }

    const BasicString name = UniqueName("socket");
    const TemporaryFolder folder;
};

// The results of the operations that tell an error beside it, with that error.
using Result = std::pair<int, Error>;

Result Send(ISocketService& socket, const std::string& text) {
    Error error{};
    const int count = socket.Send(text.data(), static_cast<unsigned int>(text.size()), error);
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

sockaddr_un PathAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy_n(path.data(), std::min(path.size(), sizeof address.sun_path), address.sun_path);
    return address;
}

template <typename Address>
int RawBind(int descriptor, const Address& address) {
    return bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

bool ClosesOnExec(const ISocketService& socket) { return fcntl(socket.GetSocketDescriptor(), F_GETFD) == FD_CLOEXEC; }

TEST_F(SocketTest, StreamsCarryBytesBothWays) {
    int port = 0;
    const Socket listener = Bound(Type::Stream, port);
    EXPECT_GT(port, 0);
    EXPECT_EQ(listener->Listen(1), 0);
    EXPECT_EQ(Poll(*listener, PollMode::Acceptable, 0), Result(0, Error::TimedOut));
    const Socket client = Make(Type::Stream);
    EXPECT_EQ(client->Connect(loopback, port), 0);
    EXPECT_EQ(Poll(*listener, PollMode::Acceptable).first, 1);
    EXPECT_EQ(Select(*listener, SelectMode::Acceptable), Result(1, Error::Success));

    unsigned int peerAddress = 0;
    int peerPort = 0;
    Error error = Error::Unclassified;
    const Socket server(listener->Accept(peerAddress, peerPort, error));
    EXPECT_EQ(error, Error::Success);
    EXPECT_EQ(peerAddress, loopback);
    sockaddr_in own{};
    socklen_t length = sizeof own;
    getsockname(client->GetSocketDescriptor(), reinterpret_cast<sockaddr*>(&own), &length);
    EXPECT_EQ(peerPort, ntohs(own.sin_port));
    EXPECT_TRUE(ClosesOnExec(*listener) && ClosesOnExec(*client) && ClosesOnExec(*server));

    EXPECT_EQ(Select(*server, SelectMode::Readable, 0), Result(0, Error::Success));
    EXPECT_EQ(Send(*client, "there"), Result(5, Error::Success));
    EXPECT_EQ(Poll(*server, PollMode::Readable, withoutLimit), Result(1, Error::Success));
    EXPECT_EQ(Select(*server, SelectMode::Readable, withoutLimit), Result(1, Error::Success));
    EXPECT_EQ(Receive(*server), "there");
    EXPECT_EQ(Poll(*client, PollMode::Writable), Result(1, Error::Success));
    EXPECT_EQ(Select(*client, SelectMode::Connected), Result(1, Error::Success));
    EXPECT_EQ(Send(*server, "and back"), Result(8, Error::Success));
    EXPECT_EQ(Receive(*client), "and back");
}

TEST_F(SocketTest, DatagramsCarryTheirSender) {
    int port = 0;
    int senderPort = 0;
    const Socket receiver = Bound(Type::Datagram, port);
    const Socket sender = Bound(Type::Datagram, senderPort);
    Error error = Error::Unclassified;
    char buffer[10];
    unsigned int address = 0;
    int from = 0;
    EXPECT_EQ(sender->SendTo("hello", 5, error, loopback, port), 5);
    EXPECT_EQ(error, Error::Success);
    EXPECT_EQ(receiver->RecvFrom(buffer, sizeof buffer, error, address, from), 5);
    EXPECT_EQ(address, loopback);
    EXPECT_EQ(from, senderPort);
    // An empty one looks like a closed connection to Poll, but not to Recv.
    EXPECT_EQ(sender->SendTo("", 0, error, loopback, port), 0);
    EXPECT_EQ(Poll(*receiver, PollMode::Readable), Result(1, Error::ConnReset));
    EXPECT_EQ(Receive(*receiver), "");

    receiver->SetOptionBlocking(false);
    EXPECT_EQ(receiver->RecvFrom(buffer, sizeof buffer, error, address, from), -1);
    EXPECT_EQ(error, Error::WouldBlock);
    EXPECT_EQ(from, senderPort);
    const std::string tooLarge(100000, 'x');
    EXPECT_EQ(sender->SendTo(tooLarge.data(), 100000, error, loopback, port), -1);
    EXPECT_EQ(error, Error::MsgSize);
    receiver->Close();
    EXPECT_EQ(sender->Connect(loopback, port), 0);
    EXPECT_EQ(Send(*sender, "x"), Result(1, Error::Success));
    EXPECT_EQ(Poll(*sender, PollMode::Readable), Result(-1, Error::Unclassified));
    EXPECT_EQ(Send(*sender, "x"), Result(-1, Error::ConnRefused));
}

TEST_F(SocketTest, LocalNamesAreAbstract) {
    const Socket listener = Make(Type::Stream, Domain::Local);
    EXPECT_EQ(listener->Bind(name), 0);
    EXPECT_FALSE(std::filesystem::exists(std::string(name)));
    EXPECT_EQ(Make(Type::Stream, Domain::Local)->Bind(name), Number(Error::AddrInUse));
    EXPECT_EQ(listener->Listen(1), 0);
    const Socket client = Make(Type::Stream, Domain::Local);
    EXPECT_EQ(client->Connect(name + "-none"), Number(Error::ConnRefused));
    EXPECT_EQ(client->Connect(name), 0);
    BasicString peer = "old";
    Error error = Error::Unclassified;
    const Socket server(listener->Accept(peer, error));
    EXPECT_EQ(error, Error::Success);
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
    EXPECT_EQ(Send(*sender, "y"), Result(1, Error::Success));
    EXPECT_EQ(Receive(*receiver), "y");

    for (const auto& [size, expected] :
         {std::pair(0U, "......"), {1U, "......"}, {2U, "......"}, {3U, ".a...."}, {5U, ".abc.."}}) {
        std::string buffer = "......";
        SocketService::MakeAbstract(buffer.data(), size, "abcdef");
        EXPECT_EQ(buffer, expected);
    }
}

TEST_F(SocketTest, SocketFilesAreConnectedToAndRemovedByWhoIsBoundToThem) {
    const std::string path = folder / std::string(107 - (folder / "").size(), 'r');
    const int receiver = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(RawBind(receiver, PathAddress(path)), 0);
    const Socket sender(factory->CreateNonAbstractIpcSocket());
    EXPECT_EQ(sender->Connect(path), 0);
    EXPECT_EQ(Send(*sender, "x"), Result(1, Error::Success));
    EXPECT_EQ(sender->Close(), 0);
    EXPECT_TRUE(std::filesystem::exists(path));
    close(receiver);

    // Bound by other means, to a path that fills its place to the last byte.
    const std::string longPath = folder / std::string(108 - (folder / "").size(), 'x');
    const Socket bound = Make(Type::Stream, Domain::Local);
    ASSERT_EQ(RawBind(bound->GetSocketDescriptor(), PathAddress(longPath)), 0);
    const Socket listener = Make(Type::Stream, Domain::Local);
    EXPECT_EQ(listener->Bind(name), 0);
    EXPECT_EQ(listener->Listen(1), 0);
    EXPECT_EQ(bound->Connect(name), 0);
    BasicString peer;
    Error error{};
    EXPECT_TRUE(Socket(listener->Accept(peer, error)));
    EXPECT_EQ(peer, longPath);
    ASSERT_TRUE(std::filesystem::remove(longPath));
    EXPECT_TRUE(Throws<VeException>([&] { bound->Close(); }, "Could not unlink socket file."));
    {
        const FailingCall call("getsockname", -1, EACCES);
        EXPECT_TRUE(
            Throws<VeException>([&] { bound->Close(); }, "Could not query if local domain is bound to a file."));
    }
    // Nor can it be deleted.
    Child child([&] {
        delete bound.get();
        return 0;
    });
    EXPECT_EQ(child.Wait(), 128 + SIGABRT);
    // Still open.
    EXPECT_EQ(Select(*bound, SelectMode::Writable).first, 1);
    std::ofstream(longPath) << "";
    EXPECT_EQ(bound->Close(), 0);
    EXPECT_FALSE(std::filesystem::exists(longPath));

    // One that was taken over is nobody's to remove.
    int descriptor = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(RawBind(descriptor, PathAddress(longPath)), 0);
    EXPECT_EQ(Socket(factory->CreateSocket(&descriptor))->Close(), 0);
    EXPECT_TRUE(std::filesystem::exists(longPath));
}

TEST_F(SocketTest, EndOfThePeerIsSeen) {
    const auto closes = [](ISocketService& socket) { socket.Close(); };
    const auto halfCloses = [](ISocketService& socket) { socket.Shutdown(ShutdownMode::Send); };
    const auto resets = [](ISocketService& socket) {
        const linger atOnce{1, 0};
        setsockopt(socket.GetSocketDescriptor(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        socket.Close();
    };
    const struct {
        const char* what;
        std::function<void(ISocketService&)> end;
        std::string received;
    } table[] = {{"closes", closes, ""}, {"half-closes", halfCloses, ""}, {"resets", resets, "10054"}};
    for (const auto& row : table) {
        SCOPED_TRACE(row.what);
        const Connection connection = Connect();
        row.end(*connection.server);
        EXPECT_EQ(Poll(*connection.client, PollMode::Readable), Result(1, Error::ConnReset));
        EXPECT_EQ(Poll(*connection.client, PollMode::Writable), Result(1, Error::ConnReset));
        EXPECT_EQ(Select(*connection.client, SelectMode::Readable), Result(1, Error::Success));
        EXPECT_EQ(Receive(*connection.client), row.received);
    }
    const Connection connection = Connect();
    connection.server->Shutdown(ShutdownMode::Send);
    EXPECT_EQ(Receive(*connection.client), "");
    EXPECT_EQ(Send(*connection.client, "still"), Result(5, Error::Success));
    EXPECT_EQ(Receive(*connection.server), "still");
    EXPECT_EQ(Send(*connection.server, "x"), Result(-1, Error::NotConn));
    // The byte that was not read makes it a reset.
    Send(*connection.client, "x");
    connection.server->Close();
    EXPECT_EQ(Send(*connection.client, "x"), Result(-1, Error::NotConn));
    Error error{};
    EXPECT_EQ(connection.client->SendTo("x", 1, error, loopback, 1), -1);
    EXPECT_EQ(error, Error::NotConn);
}

TEST_F(SocketTest, PollJudgesWhatTheSystemReports) {
    const Connection connection = Connect();
    const struct {
        int events;
        Result result;
        // After a Shutdown by this side.
        Result afterShutdown;
    } table[] = {{POLLIN, {1, Error::Success}, {1, Error::Shutdown}},
                 {POLLRDNORM, {1, Error::Success}, {1, Error::Shutdown}},
                 {POLLRDBAND, {1, Error::Success}, {1, Error::Shutdown}},
                 {POLLOUT, {1, Error::Success}, {1, Error::Shutdown}},
                 {POLLWRNORM, {1, Error::Success}, {1, Error::Shutdown}},
                 {POLLWRBAND, {1, Error::Success}, {1, Error::Shutdown}},
                 {POLLIN | POLLHUP, {1, Error::ConnReset}, {1, Error::Shutdown}},
                 {POLLHUP, {1, Error::ConnReset}, {1, Error::ConnReset}},
                 {POLLHUP | POLLNVAL | POLLERR, {1, Error::ConnReset}, {1, Error::ConnReset}},
                 {POLLNVAL, {-1, Error::NotSock}, {-1, Error::NotSock}},
                 {POLLNVAL | POLLERR, {-1, Error::NotSock}, {-1, Error::NotSock}},
                 {POLLPRI, {-1, Error::Unclassified}, {-1, Error::Unclassified}},
                 {POLLERR | POLLRDHUP, {-1, Error::Unclassified}, {-1, Error::Unclassified}},
                 {POLLIN | POLLRDHUP, {1, Error::ConnReset}, {1, Error::ConnReset}},
                 {0, {-1, Error::Unclassified}, {-1, Error::Unclassified}},
                 {POLLIN | POLLRDBAND, {-1, Error::VerNotSupported}, {-1, Error::VerNotSupported}}};
    for (const bool isShutdown : {false, true}) {
        for (const auto& row : table) {
            int asked = 0;
            const FailingCall call("poll", 1, [&](void* polled) {
                asked = static_cast<pollfd*>(polled)->events;
                static_cast<pollfd*>(polled)->revents = static_cast<short>(row.events);
            });
            EXPECT_EQ(Poll(*connection.client, PollMode::Acceptable), isShutdown ? row.afterShutdown : row.result)
                << row.events << (isShutdown ? " after Shutdown" : "");
            EXPECT_EQ(asked, POLLIN | POLLRDBAND);
        }
        // Known before it happens.
        const FailingCall call(
            "shutdown", [&] { EXPECT_EQ(Poll(*connection.client, PollMode::Writable), Result(1, Error::Shutdown)); });
        connection.client->Shutdown(ShutdownMode::Receive);
    }
}

TEST_F(SocketTest, ShutdownWakesWhoPolls) {
    const Connection connection = Connect();
    std::thread other([&] {
        EXPECT_EQ(Poll(*connection.client, PollMode::Readable, withoutLimit), Result(1, Error::Shutdown));
        EXPECT_EQ(Select(*connection.client, SelectMode::Readable, withoutLimit), Result(1, Error::Success));
        EXPECT_EQ(Poll(*connection.client, PollMode::Writable), Result(1, Error::ConnReset));
    });
    EXPECT_EQ(connection.client->Shutdown(), 0);
    other.join();
    EXPECT_EQ(Make(Type::Stream)->Shutdown(), Number(Error::NotConn));
    // Where it would be ready otherwise.
    const Connection half = Connect();
    EXPECT_EQ(half.client->Shutdown(ShutdownMode::Receive), 0);
    EXPECT_EQ(Poll(*half.client, PollMode::Writable), Result(1, Error::Shutdown));
}

TEST_F(SocketTest, NonBlockingNeverWaits) {
    const Connection connection = Connect();
    EXPECT_EQ(connection.client->SetOptionBlocking(false), 0);
    EXPECT_EQ(Receive(*connection.client), "10035");
    const std::string much(1 << 20, 'x');
    Result sent;
    long long total = 0;
    while (sent = Send(*connection.client, much), sent.first != -1) {
        total += sent.first;
    }
    EXPECT_GT(total, 0);
    EXPECT_EQ(sent, Result(-1, Error::WouldBlock));
    EXPECT_EQ(Poll(*connection.client, PollMode::Writable, 0), Result(0, Error::TimedOut));
    EXPECT_EQ(Select(*connection.client, SelectMode::Writable, 0), Result(0, Error::Success));
    EXPECT_EQ(connection.client->SetOptionBlocking(true), 0);
    EXPECT_EQ(fcntl(connection.client->GetSocketDescriptor(), F_GETFL) & O_NONBLOCK, 0);

    const Socket listener = Make(Type::Stream, Domain::Ipv4, Blocking::NonBlocking);
    int port = 0;
    EXPECT_EQ(listener->Bind(loopback, port), 0);
    EXPECT_EQ(listener->Listen(1), 0);
    unsigned int address = 1;
    Error error{};
    EXPECT_EQ(listener->Accept(address, port, error), nullptr);
    EXPECT_EQ(error, Error::WouldBlock);
    BasicString peer;
    EXPECT_EQ(listener->Accept(peer, error), nullptr);
    EXPECT_EQ(error, Error::WouldBlock);
    const Socket client = Make(Type::Stream, Domain::Ipv4, Blocking::NonBlocking);
    EXPECT_EQ(client->Connect(loopback, port), Number(Error::InProgress));
    EXPECT_EQ(Poll(*client, PollMode::Connected), Result(1, Error::Success));
}

TEST_F(SocketTest, TimeoutsAreKept) {
    int port = 0;
    const Socket socket = Bound(Type::Datagram, port);
    const std::function<Result()> waits[] = {[&] { return Poll(*socket, PollMode::Readable, 30); },
                                             [&] { return Select(*socket, SelectMode::Readable, 30000); },
                                             [&] { return Select(*socket, SelectMode::TimeoutOnly, 30000); },
                                             [&] { return Select(*socket, static_cast<SelectMode>(9), 1030000); }};
    const milliseconds limits[] = {milliseconds(30), milliseconds(30), milliseconds(30), milliseconds(1030)};
    for (int i = 0; i < 4; ++i) {
        const auto start = steady_clock::now();
        EXPECT_EQ(waits[i](), Result(0, i == 0 ? Error::TimedOut : Error::Success));
        EXPECT_GE(steady_clock::now() - start, limits[i]);
    }
}

TEST_F(SocketTest, OptionsReachTheSystem) {
    const Socket socket = Make(Type::Stream);
    const int descriptor = socket->GetSocketDescriptor();
    const struct {
        Option option;
        int level;
        int name;
    } table[] = {{Option::TcpNoDelay, IPPROTO_TCP, TCP_NODELAY},
                 {Option::ReuseAddress, SOL_SOCKET, SO_REUSEADDR},
                 {Option::KeepAlive, SOL_SOCKET, SO_KEEPALIVE},
                 {Option::Broadcast, SOL_SOCKET, SO_BROADCAST},
                 {Option::TcpKeepAliveIdle, IPPROTO_TCP, TCP_KEEPIDLE},
                 {Option::TcpKeepAliveInterval, IPPROTO_TCP, TCP_KEEPINTVL},
                 {Option::TcpKeepAliveCount, IPPROTO_TCP, TCP_KEEPCNT}};
    for (const auto& row : table) {
        const int one = 1;
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ(socket->SetSockOpt(row.option, &one, sizeof one), 0);
        EXPECT_EQ(getsockopt(descriptor, row.level, row.name, &value, &length), 0);
        EXPECT_EQ(value, 1);
        std::pair<int, int> reply{0, 7};
        unsigned int room = sizeof reply;
        EXPECT_EQ(socket->GetSockOpt(row.option, &reply, &room), 0);
        EXPECT_EQ(reply, std::pair(1, 7));
        EXPECT_EQ(room, sizeof reply);
    }
    const timeval limit{3, 500000};
    for (const auto& [option, systemName] :
         {std::pair(Option::ReceiveTimeout, SO_RCVTIMEO), {Option::SendTimeout, SO_SNDTIMEO}}) {
        timeval value{};
        socklen_t length = sizeof value;
        EXPECT_EQ(socket->SetSockOpt(option, &limit, sizeof limit), 0);
        EXPECT_EQ(getsockopt(descriptor, SOL_SOCKET, systemName, &value, &length), 0);
        EXPECT_EQ(value.tv_sec, 3);
    }

    // The getters give the result of the query.
    const struct {
        int (ISocketService::*set)(int);
        int (ISocketService::*get)(int&);
        int name;
    } keepAlive[] = {
        {&ISocketService::SetOptionKeepAliveIdleTime, &ISocketService::GetOptionKeepAliveIdleTime, TCP_KEEPIDLE},
        {&ISocketService::SetOptionKeepAliveProbeInterval, &ISocketService::GetOptionKeepAliveProbeInterval,
         TCP_KEEPINTVL},
        {&ISocketService::SetOptionKeepAliveProbeCount, &ISocketService::GetOptionKeepAliveProbeCount, TCP_KEEPCNT}};
    for (const auto& row : keepAlive) {
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ((*socket.*row.set)(7), 0);
        EXPECT_EQ(getsockopt(descriptor, IPPROTO_TCP, row.name, &value, &length), 0);
        EXPECT_EQ(value, 7);
        EXPECT_EQ((*socket.*row.get)(value), 0);
        EXPECT_EQ(value, 0);
        EXPECT_EQ((*socket.*row.set)(-1), Number(Error::Inval));
        value = 7;
        EXPECT_NE((*Make(Type::Datagram).*row.get)(value), 0);
        EXPECT_EQ(value, 7);
    }

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
    // Refused for want of a level, not of a name.
    EXPECT_EQ(SocketService::GetLinuxSocketOptionName(Option::Linger), SO_LINGER);
    EXPECT_EQ(SocketService::GetLinuxSocketOptionName(Option::TcpUserTimeout), TCP_USER_TIMEOUT);
}

TEST_F(SocketTest, BadArgumentsAreRefused) {
    const std::string domain = "GetPosixSocketDomain: Could not determine socket domain, invalid value.";
    const std::string type = "GetPosixSocketType: Could not determine socket type, invalid value.";
    for (const int value : {0, 2, 4}) {
        EXPECT_TRUE(Throws<VeException>([&] { Make(static_cast<Type>(9), static_cast<Domain>(value)); }, domain));
    }
    for (const int value : {0, 3}) {
        EXPECT_TRUE(Throws<VeException>([&] { Make(static_cast<Type>(value)); }, type));
    }
    const Socket socket = Make(Type::Datagram);
    Error error{};
    for (int port : {65536, -1}) {
        EXPECT_EQ(socket->Bind(loopback, port), Number(Error::Inval));
        EXPECT_EQ(socket->Connect(loopback, port), Number(Error::Inval));
        error = Error::Success;
        EXPECT_EQ(socket->SendTo("x", 1, error, loopback, port), -1);
        EXPECT_EQ(error, Error::Inval);
    }
    int port = 0;
    EXPECT_EQ(socket->Bind(htonl(0x08080808), port), Number(Error::AddrNotAvail));
    for (const int mode : {0, 5}) {
        EXPECT_EQ(Poll(*socket, static_cast<PollMode>(mode), withoutLimit), Result(-1, Error::Inval));
    }
    EXPECT_EQ(socket->Listen(1), Number(Error::OpNotSupp));
    EXPECT_EQ(Send(*socket, "x"), Result(-1, Error::DestAddrReq));

    // Any other mode blocks.
    for (const Socket& blocking :
         {Make(Type::Stream, Domain::Ipv4, static_cast<Blocking>(3)), Socket(factory->CreateNonAbstractIpcSocket())}) {
        EXPECT_EQ(fcntl(blocking->GetSocketDescriptor(), F_GETFL) & O_NONBLOCK, 0);
    }

    // One that was taken over has no domain, and a null handle no descriptor.
    int descriptor = dup(socket->GetSocketDescriptor());
    for (void* const handle : {static_cast<void*>(&descriptor), static_cast<void*>(nullptr)}) {
        const Socket adopted(factory->CreateSocket(handle));
        EXPECT_EQ(adopted->GetSocketDescriptor(), handle != nullptr ? descriptor : -1);
        EXPECT_EQ(ClosesOnExec(*adopted), handle != nullptr);
        const std::function<void()> refused[] = {[&] { adopted->Bind(loopback, port); }, [&] { adopted->Bind(name); },
                                                 [&] { adopted->Connect(loopback, port); },
                                                 [&] { adopted->Connect(name); },
                                                 [&] { adopted->SendTo("x", 1, error, loopback, 1); }};
        for (const auto& operation : refused) {
            EXPECT_TRUE(Throws<VeException>(operation, domain));
        }
    }
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(SocketTest, ClosedSocketTouchesNoOtherThatHasItsNumber) {
    const Connection connection = Connect();
    ISocketService& socket = *connection.client;
    const int descriptor = socket.GetSocketDescriptor();
    EXPECT_EQ(socket.Close(), 0);
    EXPECT_EQ(socket.GetSocketDescriptor(), -1);
    std::vector<Socket> others;
    do {
        others.push_back(Make(Type::Datagram));
    } while (others.back()->GetSocketDescriptor() < descriptor);
    ASSERT_EQ(others.back()->GetSocketDescriptor(), descriptor);
    EXPECT_EQ(socket.Close(), 0);
    EXPECT_EQ(Select(socket, SelectMode::TimeoutOnly, withoutLimit), Result(-1, Error::NotSock));
    EXPECT_EQ(Poll(socket, PollMode::Readable, withoutLimit), Result(-1, Error::NotSock));
    EXPECT_EQ(Send(socket, "x"), Result(-1, Error::Unclassified));
    EXPECT_EQ(Receive(socket), "-1");
    EXPECT_EQ(socket.Shutdown(), -1);
    EXPECT_EQ(socket.SetOptionBlocking(false), -1);
    EXPECT_TRUE(Throws<VeException>([&] { dynamic_cast<SocketService&>(socket).Unlink(); },
                                    "Could not query if local domain is bound to a file."));
    EXPECT_NE(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(SocketTest, CloseThatOvertakesAnOperationIsReportedAsClosed) {
    const struct {
        const char* call;
        std::function<Result(ISocketService&)> operation;
    } table[] = {{"select", [](auto& socket) { return Select(socket, SelectMode::Readable); }},
                 {"select", [](auto& socket) { return Select(socket, SelectMode::TimeoutOnly, 0); }},
                 {"poll", [](auto& socket) { return Poll(socket, PollMode::Readable); }},
                 {"recv", [](auto& socket) { return Poll(socket, PollMode::Readable); }}};
    for (const auto& row : table) {
        const Connection connection = Connect();
        Send(*connection.server, "x");
        Socket successor;
        const FailingCall call(row.call, [&] {
            connection.client->Close();
            // Its number belongs to a socket that would never be ready.
            successor = Make(Type::Datagram);
        });
        EXPECT_EQ(row.operation(*connection.client), Result(-1, Error::NotSock)) << row.call;
    }
    // Two that close at the same time close once, and nobody uses a number that is free.
    for (const char* const call : {"getsockname", "close"}) {
        const Socket socket = Make(Type::Stream, Domain::Local);
        const FailingCall overtaken(call, [&] {
            EXPECT_EQ(socket->Close(), 0);
            EXPECT_EQ(socket->GetSocketDescriptor() == -1, call == std::string("close"));
        });
        EXPECT_EQ(socket->Close(), 0);
    }
}

TEST_F(SocketTest, SocketThatCouldNotBeMadeFailsEverything) {
    {
        const FailingCall call("socket", -1, EMFILE);
        const Socket socket = Make(Type::Stream);
        EXPECT_EQ(socket->GetSocketDescriptor(), -1);
        for (const auto mode : {SelectMode::Readable, SelectMode::Writable, SelectMode::TimeoutOnly}) {
            EXPECT_EQ(Select(*socket, mode, withoutLimit), Result(-1, Error::Unclassified));
        }
        EXPECT_EQ(Poll(*socket, PollMode::Readable, withoutLimit), Result(-1, Error::NotSock));
        EXPECT_EQ(Poll(*socket, PollMode::Readable, 1), Result(0, Error::TimedOut));
        EXPECT_EQ(socket->Close(), 0);
    }
    for (const char* const function : {"socket", "ioctl"}) {
        const FailingCall call(function, -1, EACCES);
        const std::string error = function == std::string("ioctl") ? "Permission denied" : "Bad file descriptor";
        EXPECT_TRUE(Throws<VeException>([this] { Make(Type::Stream, Domain::Ipv4, Blocking::NonBlocking); },
                                        "Could not create non-blocking socket. Error " + error + "."));
    }
}

TEST_F(SocketTest, FailedCallsAreReported) {
    const Connection connection = Connect();
    int port = 0;
    const struct {
        const char* function;
        std::function<Result()> operation;
        int result;
    } table[] = {
        {"getsockname", [&] { return Result(Make(Type::Stream)->Bind(loopback, port), Error::Intr); }, 10004},
        {"shutdown", [&] { return Result(connection.client->Shutdown(), Error::Intr); }, 10004},
        {"ioctl", [&] { return Result(connection.client->SetOptionBlocking(true), Error::Intr); }, 10004},
        {"select", [&] { return Select(*connection.client, SelectMode::Readable); }, -1},
        {"poll", [&] { return Poll(*connection.client, PollMode::Readable); }, -1},
        {"recv", [&] { return Result(-1, Receive(*connection.client) == "10004" ? Error::Intr : Error::Success); }, -1},
    };
    for (const auto& row : table) {
        const FailingCall call(row.function, -1, EINTR);
        EXPECT_EQ(row.operation(), Result(row.result, Error::Intr)) << row.function;
    }
    {
        const FailingCall call("poll", -2, EINTR);
        EXPECT_EQ(Poll(*connection.client, PollMode::Readable), Result(-1, Error::Unclassified));
    }
    const int descriptor = connection.client->GetSocketDescriptor();
    {
        const FailingCall call("close", -1, EINTR);
        EXPECT_EQ(connection.client->Close(), Number(Error::Intr));
    }
    EXPECT_EQ(connection.client->GetSocketDescriptor(), -1);
    close(descriptor);
}

TEST_F(SocketTest, AcceptedDescriptorIsNotLost) {
    int port = 0;
    const Socket listener = Bound(Type::Stream, port);
    EXPECT_EQ(listener->Listen(1), 0);
    const Socket client = Make(Type::Stream);
    EXPECT_EQ(client->Connect(loopback, port), 0);
    unsigned int address = 0;
    Error error{};
    const FailingAllocation call(0);
    EXPECT_THROW(listener->Accept(address, port, error), std::bad_alloc);
}

TEST_F(SocketTest, UnlinkTakesNoAddressForAPath) {
    Child child([this] {
        EXPECT_EQ(chdir((folder / "").c_str()), 0);
        // What a port would be as a path.
        std::ofstream("ab") << "";
        SocketService socket(Type::Stream, Domain::Ipv4, Blocking::Blocking, true);
        int port = 'a' * 256 + 'b';
        EXPECT_EQ(socket.Bind(0, port), 0);
        socket.Unlink();
        EXPECT_TRUE(std::filesystem::exists("ab"));
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.Wait(), 0);
}

// A request to be cancelled that has not been met yet.
TEST_F(SocketTest, CancellationLosesNoDescriptor) {
    bool isOver = false;
    std::thread([&] {
        const Socket socket = Make(Type::Stream);
        Socket deleted = Make(Type::Stream, Domain::Local);
        const std::unique_ptr<ISharedMemoryService> memory(
            factory->CreateSharedMemory(name, 1, ISharedMemoryService::mode::Create));
        const std::unique_ptr<IFileService> file(factory->CreateFile(folder / "file", IFileService::FileMode::Create,
                                                                     IFileService::FileAccess::Write, true));
        std::unique_ptr<IFileService> deletedFile(factory->CreateFile(folder / "other", IFileService::FileMode::Create,
                                                                      IFileService::FileAccess::Write, true));
        file->Write(reinterpret_cast<const unsigned char*>("x"), 0, 1);
        deletedFile->Write(reinterpret_cast<const unsigned char*>("x"), 0, 1);
        const std::ptrdiff_t open = OpenDescriptors();

        pthread_cancel(pthread_self());
        socket->Close();
        deleted.reset();
        memory->Close();
        file->Close();
        deletedFile.reset();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        EXPECT_EQ(OpenDescriptors(), open - 5);
        EXPECT_EQ(std::filesystem::file_size(folder / "file") + std::filesystem::file_size(folder / "other"), 2U);
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
    Error error{};
    sockets.front()->SendTo("x", 1, error, loopback, port);
    if (selects) {
        EXPECT_EQ(Select(last, SelectMode::Readable), Result(1, Error::Success));
        EXPECT_EQ(Select(last, SelectMode::Writable), Result(1, Error::Success));
    }
    EXPECT_EQ(Poll(last, PollMode::Readable), Result(1, Error::Success));
    sockets.clear();
    setrlimit(RLIMIT_NOFILE, &before);
}

// Runs socat with these arguments, and with `descriptor` passed on to it.
class Socat : public Child {
public:
    explicit Socat(std::vector<std::string> arguments, int descriptor = -1)
        : Child([=]() mutable {
              if (descriptor != -1) {
                  fcntl(descriptor, F_SETFD, 0);
              }
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
    const auto echoes = [](ISocketService& socket, const char* what) {
        EXPECT_EQ(Send(socket, what).first, 4) << what;
        EXPECT_EQ(Poll(socket, PollMode::Readable).first, 1) << what;
        EXPECT_EQ(Receive(socket), what);
    };
    unsigned int address = 0;
    int port = 0;
    Error error{};
    const Socket listener = Bound(Type::Stream, port);
    EXPECT_EQ(listener->Listen(1), 0);
    {
        Socat client({"TCP:127.0.0.1:" + std::to_string(port), "PIPE"});
        const Socket server(listener->Accept(address, port, error));
        ASSERT_TRUE(server);
        echoes(*server, "tcp1");
        server->Close();
        EXPECT_EQ(client.Wait(), 0);
    }
    {
        const Socket localListener = Make(Type::Stream, Domain::Local);
        EXPECT_EQ(localListener->Bind(name), 0);
        EXPECT_EQ(localListener->Listen(1), 0);
        Socat client({"ABSTRACT-CONNECT:" + name + ",unix-tightsocklen=0", "PIPE"});
        BasicString peer;
        const Socket server(localListener->Accept(peer, error));
        ASSERT_TRUE(server);
        echoes(*server, "unix");
        server->Close();
        EXPECT_EQ(client.Wait(), 0);
    }
    // Its servers get a socket that is ready, so that nobody has to wait for them.
    sockaddr_in free{};
    free.sin_family = AF_INET;
    free.sin_addr.s_addr = loopback;
    socklen_t length = sizeof free;
    const auto portOf = [&](int descriptor) {
        sockaddr_in bound{};
        EXPECT_EQ(getsockname(descriptor, reinterpret_cast<sockaddr*>(&bound), &length), 0);
        return ntohs(bound.sin_port);
    };
    {
        const FileDescriptor rawListener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(RawBind(rawListener.Get(), free), 0);
        EXPECT_EQ(listen(rawListener.Get(), 1), 0);
        const Socket client = Make(Type::Stream);
        EXPECT_EQ(client->Connect(loopback, portOf(rawListener.Get())), 0);
        const FileDescriptor accepted(accept4(rawListener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        Socat server({"FD:" + std::to_string(accepted.Get()), "PIPE"}, accepted.Get());
        echoes(*client, "tcp2");
        client->Shutdown(ShutdownMode::Send);
        EXPECT_EQ(server.Wait(), 0);
    }
    {
        const Socket client = Bound(Type::Datagram, port);
        const FileDescriptor raw(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(RawBind(raw.Get(), free), 0);
        sockaddr_in peer = free;
        peer.sin_port = htons(static_cast<std::uint16_t>(port));
        EXPECT_EQ(connect(raw.Get(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer), 0);
        const Socat server({"FD:" + std::to_string(raw.Get()), "PIPE"}, raw.Get());
        EXPECT_EQ(client->Connect(loopback, portOf(raw.Get())), 0);
        echoes(*client, "udp1");
    }
    {
        const std::string path = folder / "server";
        const FileDescriptor raw(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(RawBind(raw.Get(), PathAddress(path)), 0);
        const Socket client(factory->CreateNonAbstractIpcSocket());
        EXPECT_EQ(client->Connect(path), 0);
        EXPECT_EQ(Send(*client, "path").first, 4);
        Socat server({"-u", "FD:" + std::to_string(raw.Get()) + ",readbytes=4", "CREATE:" + (folder / "received")},
                     raw.Get());
        EXPECT_EQ(server.Wait(), 0);
        std::string received;
        std::ifstream(folder / "received") >> received;
        EXPECT_EQ(received, "path");
    }
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
