#include "support/Test.h"

#include <Kel/System/Ve/Internal/Linux/FileDescriptor.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <map>

// NOLINTBEGIN(performance-no-int-to-ptr): the arguments of a replaced call are machine words.

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
using Arguments = Interposition::Arguments;

constexpr unsigned int withoutLimit = 0xFFFFFFFF;
// Neither is the address that the system chooses by itself.
const unsigned int serverAddress = htonl(INADDR_LOOPBACK + 1);
const unsigned int clientAddress = htonl(INADDR_LOOPBACK + 2);

int Number(Error error) { return static_cast<int>(error); }

/// The result of an operation that tells an error beside it.
std::string Tell(int result, Error error) {
    return std::to_string(result) + ", error " + std::to_string(Number(error));
}

constexpr char nothing[] = "0, error 0";
constexpr char ready[] = "1, error 0";
constexpr char peerClosed[] = "1, error 10054";
constexpr char shutDown[] = "1, error 10058";
constexpr char timedOut[] = "0, error 10060";
constexpr char unclassified[] = "-1, error -1";
constexpr char invalid[] = "-1, error 10022";
constexpr char wouldBlock[] = "-1, error 10035";
constexpr char closed[] = "-1, error 10038";
constexpr char notConnected[] = "-1, error 10057";
constexpr char noDomain[] = "VeException: GetPosixSocketDomain: Could not determine socket domain, invalid value.";

std::string Send(ISocketService& socket, const std::string& text) {
    Error error{};
    const int count = socket.Send(text.data(), static_cast<unsigned int>(text.size()), error);
    return Tell(count, error);
}

std::string SendTo(ISocketService& socket, const std::string& text, int port) {
    Error error{};
    const int count = socket.SendTo(text.data(), static_cast<unsigned int>(text.size()), error, serverAddress, port);
    return Tell(count, error);
}

std::string Poll(ISocketService& socket, PollMode mode, unsigned int timeoutMs = 60000) {
    Error error{};
    const int result = socket.Poll(mode, timeoutMs, error);
    return Tell(result, error);
}

std::string Select(ISocketService& socket, SelectMode mode, unsigned int timeoutUs = 60000000) {
    Error error = Error::Unclassified;
    const int result = socket.Select(mode, timeoutUs, error);
    return Tell(result, error);
}

/// What comes next, in quotes, or the error.
std::string Receive(ISocketService& socket) {
    char buffer[100];
    Error error = Error::Unclassified;
    const int count = socket.Recv(buffer, sizeof buffer, error);
    return error == Error::Success ? "'" + std::string(buffer, static_cast<unsigned int>(count)) + "'"
                                   : Tell(count, error);
}

/// The same, with the sender.
std::string ReceiveFrom(ISocketService& socket, unsigned int& address, int& port) {
    char buffer[100];
    Error error = Error::Unclassified;
    const int count = socket.RecvFrom(buffer, sizeof buffer, error, address, port);
    return error == Error::Success ? "'" + std::string(buffer, static_cast<unsigned int>(count)) + "'"
                                   : Tell(count, error);
}

/// An address that a program without this library would use.
sockaddr_un LocalAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path);
    return address;
}

int BindToPath(int descriptor, const std::string& path) {
    const sockaddr_un address = LocalAddress(path);
    return bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

bool ClosesOnExec(const ISocketService& socket) { return fcntl(socket.GetSocketDescriptor(), F_GETFD) == FD_CLOEXEC; }
bool Blocks(const ISocketService& socket) { return (fcntl(socket.GetSocketDescriptor(), F_GETFL) & O_NONBLOCK) == 0; }

/// Leaves no zeros on the stack, which would end a text that has lost its own.
[[gnu::noinline]] void FillStack() {
    volatile char garbage[8192];
    for (volatile char& byte : garbage) {
        byte = 'x';
    }
}

/// The two ends of a TCP connection.
struct Connection {
    Socket client;
    Socket server;
};

class SocketTest : public FactoryTest {
protected:
    Socket Make(Type type, Domain domain = Domain::Ipv4, Blocking blocking = Blocking::Blocking) {
        return Own(factory->CreateSocket(type, domain, blocking));
    }

    /// A socket on a port that the system chooses; a stream socket listens there.
    Socket Bound(Type type, int& port, Blocking blocking = Blocking::Blocking, unsigned int address = serverAddress) {
        Socket socket = Make(type, Domain::Ipv4, blocking);
        port = 0;
        EXPECT_EQ(socket->Bind(address, port), 0);
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

    static Socket Accept(ISocketService& listener) {
        unsigned int address = 0;
        int port = 0;
        Error error{};
        return Own(listener.Accept(address, port, error));
    }

    Connection Connect() {
        int port = 0;
        const Socket listener = Bound(Type::Stream, port);
        Connection connection{Make(Type::Stream), nullptr};
        EXPECT_EQ(connection.client->Connect(serverAddress, port), 0);
        connection.server = Accept(*listener);
        return connection;
    }

    const BasicString name = UniqueName("socket");
    const TemporaryFolder folder;
};

TEST_F(SocketTest, ListenerAcceptsWhoConnects) {
    int port = 0;
    const Socket listener = Bound(Type::Stream, port);
    EXPECT_EQ(Poll(*listener, PollMode::Acceptable, 0), timedOut);
    const Socket client = Make(Type::Stream);
    int clientPort = 0;
    EXPECT_EQ(client->Bind(clientAddress, clientPort), 0);
    EXPECT_EQ(client->Connect(serverAddress, port), 0);
    EXPECT_EQ(Poll(*listener, PollMode::Acceptable), ready);
    EXPECT_EQ(Select(*listener, SelectMode::Acceptable), ready);
    unsigned int address = 0;
    int peerPort = 0;
    Error error = Error::Unclassified;
    const Socket server = Own(listener->Accept(address, peerPort, error));
    EXPECT_EQ(error, Error::Success);
    EXPECT_EQ(address, clientAddress);
    EXPECT_EQ(peerPort, clientPort);
    EXPECT_TRUE(ClosesOnExec(*client) && ClosesOnExec(*server));
    EXPECT_EQ(Send(*server, "hello"), "5, error 0");
    EXPECT_EQ(Receive(*client), "'hello'");
    EXPECT_EQ(client->Connect(serverAddress, port), Number(Error::IsConn));
}

TEST_F(SocketTest, DatagramsCarryTheirSender) {
    int port = 0;
    int senderPort = 0;
    const Socket receiver = Bound(Type::Datagram, port);
    const Socket sender = Bound(Type::Datagram, senderPort, Blocking::Blocking, clientAddress);
    unsigned int address = 0;
    int from = 0;
    EXPECT_EQ(SendTo(*sender, "hello", port), "5, error 0");
    EXPECT_EQ(ReceiveFrom(*receiver, address, from), "'hello'");
    EXPECT_EQ(address, clientAddress);
    EXPECT_EQ(from, senderPort);
    // An empty one looks like a closed connection to Poll, but not to Recv.
    EXPECT_EQ(SendTo(*sender, "", port), nothing);
    EXPECT_EQ(Poll(*receiver, PollMode::Readable), peerClosed);
    EXPECT_EQ(Receive(*receiver), "''");

    receiver->SetOptionBlocking(false);
    EXPECT_EQ(ReceiveFrom(*receiver, address, from), wouldBlock);
    EXPECT_EQ(address, clientAddress);
    EXPECT_EQ(from, senderPort);
    EXPECT_EQ(SendTo(*sender, std::string(100000, 'x'), port), "-1, error 10040");
    EXPECT_EQ(Send(*sender, "x"), "-1, error 10039");
    receiver->Close();
    EXPECT_EQ(sender->Connect(serverAddress, port), 0);
    EXPECT_EQ(Send(*sender, "x"), ready);
    EXPECT_EQ(Poll(*sender, PollMode::Readable), unclassified);
    EXPECT_EQ(Send(*sender, "x"), "-1, error 10061");
}

TEST_F(SocketTest, LocalNamesAreAbstract) {
    const Socket listener = ListeningOnName();
    EXPECT_FALSE(std::filesystem::exists(std::string(name)));
    EXPECT_EQ(Make(Type::Stream, Domain::Local)->Bind(name), Number(Error::AddrInUse));
    const Socket client = Make(Type::Stream, Domain::Local);
    EXPECT_EQ(client->Connect(name + "-none"), Number(Error::ConnRefused));
    EXPECT_EQ(client->Connect(name), 0);
    BasicString peer = "old";
    Error error = Error::Unclassified;
    const Socket server = Own(listener->Accept(peer, error));
    EXPECT_EQ(peer, "");
    EXPECT_EQ(error, Error::Success);
    EXPECT_EQ(Send(*server, "x"), ready);
    EXPECT_EQ(Receive(*client), "'x'");

    // 106 characters count, with the null before and those behind.
    const BasicString longName = name + std::string(106 - name.size(), 'x');
    const Socket receiver = Make(Type::Datagram, Domain::Local);
    EXPECT_EQ(receiver->Bind(longName + "and more"), 0);
    const Socket sender = Make(Type::Datagram, Domain::Local);
    EXPECT_EQ(sender->Connect(longName.substr(0, 105)), Number(Error::ConnRefused));
    EXPECT_EQ(sender->Connect(longName + "or other"), 0);
    const FileDescriptor other(socket(AF_UNIX, SOCK_STREAM, 0));
    const sockaddr_un address = LocalAddress('\0' + name);
    EXPECT_EQ(connect(other.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);

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
    const std::string longPath = folder / std::string(108 - (folder / "").size(), 'y');
    int descriptor = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(BindToPath(descriptor, path), 0);
    const Socket receiver = Own(factory->CreateSocket(&descriptor));
    const Socket sender = Own(factory->CreateNonAbstractIpcSocket());
    EXPECT_TRUE(Blocks(*sender));
    EXPECT_EQ(sender->Connect(path + "and more"), 0);
    EXPECT_EQ(Send(*sender, "x"), ready);
    EXPECT_EQ(Receive(*receiver), "'x'");
    // One that was taken over is nobody's to remove.
    EXPECT_EQ(sender->Close(), 0);
    EXPECT_EQ(receiver->Close(), 0);
    EXPECT_TRUE(std::filesystem::exists(path));

    const Socket bound = Make(Type::Stream, Domain::Local);
    ASSERT_EQ(BindToPath(bound->GetSocketDescriptor(), longPath), 0);
    const Socket listener = ListeningOnName();
    EXPECT_EQ(bound->Connect(name), 0);
    BasicString peer;
    Error error{};
    FillStack();
    Own(listener->Accept(peer, error));
    EXPECT_EQ(peer, longPath);
    ASSERT_TRUE(std::filesystem::remove(longPath));
    EXPECT_TRUE(ComesTo([&] { bound->Close(); }, "VeException: Could not unlink socket file."));
    EXPECT_EQ(Poll(*bound, PollMode::Readable), peerClosed);
    folder.Write(longPath.substr((folder / "").size()), "");
    FillStack();
    EXPECT_EQ(bound->Close(), 0);
    EXPECT_FALSE(std::filesystem::exists(longPath));
}

TEST_F(SocketTest, UnlinkTakesNoAddressForAPath) {
    const Interposition call("unlink", [](const Arguments& /*arguments*/) -> std::intptr_t {
        ADD_FAILURE() << "unlinks";
        return 0;
    });
    SocketService socket(Type::Stream, Domain::Ipv4, Blocking::Blocking, true);
    int port = 0;
    EXPECT_EQ(socket.Bind(serverAddress, port), 0);
    socket.Unlink();
}

TEST_F(SocketTest, EndOfThePeerIsSeen) {
    const std::tuple<const char*, std::function<void(ISocketService&)>, std::string> table[] = {
        {"closes", [](ISocketService& socket) { socket.Close(); }, "''"},
        {"half-closes", [](ISocketService& socket) { socket.Shutdown(ShutdownMode::Send); }, "''"},
        {"resets",
         [](ISocketService& socket) {
             const linger atOnce{1, 0};
             setsockopt(socket.GetSocketDescriptor(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
             socket.Close();
         },
         "-1, error 10054"}};
    for (const auto& [what, end, received] : table) {
        SCOPED_TRACE(what);
        const Connection connection = Connect();
        end(*connection.server);
        EXPECT_EQ(Poll(*connection.client, PollMode::Readable), peerClosed);
        EXPECT_EQ(Poll(*connection.client, PollMode::Writable), peerClosed);
        EXPECT_EQ(Select(*connection.client, SelectMode::Readable), ready);
        EXPECT_EQ(Receive(*connection.client), received);
    }
    const Connection connection = Connect();
    connection.client->Shutdown(ShutdownMode::Send);
    EXPECT_EQ(Send(*connection.server, "still"), "5, error 0");
    EXPECT_EQ(Receive(*connection.client), "'still'");
    // Without SIGPIPE.
    EXPECT_EQ(Send(*connection.client, "x"), notConnected);
    EXPECT_EQ(SendTo(*connection.client, "x", 1), notConnected);
}

TEST_F(SocketTest, PollJudgesWhatTheSystemReports) {
    const Connection connection = Connect();
    ISocketService& client = *connection.client;
    // The second result is that after a Shutdown by this side.
    const std::tuple<int, const char*, const char*> table[] = {
        {POLLIN, ready, shutDown},
        {POLLRDNORM, ready, shutDown},
        {POLLRDBAND, ready, shutDown},
        {POLLOUT, ready, shutDown},
        {POLLWRNORM, ready, shutDown},
        {POLLWRBAND, ready, shutDown},
        {POLLIN | POLLHUP, peerClosed, shutDown},
        {POLLHUP, peerClosed, peerClosed},
        {POLLHUP | POLLNVAL | POLLERR, peerClosed, peerClosed},
        {POLLNVAL, closed, closed},
        {POLLNVAL | POLLERR, closed, closed},
        {POLLPRI, unclassified, unclassified},
        {POLLERR | POLLRDHUP, unclassified, unclassified},
        {POLLIN | POLLRDHUP, peerClosed, peerClosed},
        {0, unclassified, unclassified},
        {POLLIN | POLLRDBAND, "-1, error 10092", "-1, error 10092"},
    };
    for (const bool isShutdown : {false, true}) {
        for (const auto& [events, result, afterShutdown] : table) {
            const Interposition call("poll", [&events = events](const Arguments& arguments) {
                reinterpret_cast<pollfd*>(arguments[0])->revents = static_cast<short>(events);
                return 1;
            });
            EXPECT_EQ(Poll(client, PollMode::Readable), isShutdown ? afterShutdown : result)
                << events << (isShutdown ? " after Shutdown" : "");
        }
        // Known before it happens.
        const Interposition call("shutdown", [&](const Arguments& arguments) {
            EXPECT_EQ(Poll(client, PollMode::Writable), shutDown);
            return call.CallThrough(arguments);
        });
        client.Shutdown(ShutdownMode::Receive);
    }
    const Interposition call("poll", [](const Arguments& /*arguments*/) {
        errno = EINTR;
        return -2;
    });
    EXPECT_EQ(Poll(client, PollMode::Readable), unclassified);
}

TEST_F(SocketTest, PollAndSelectAskForWhatTheModeSays) {
    const Connection connection = Connect();
    ISocketService& client = *connection.client;
    const std::tuple<PollMode, SelectMode, int> table[] = {
        {PollMode::Readable, SelectMode::Readable, POLLIN | POLLRDBAND},
        {PollMode::Acceptable, SelectMode::Acceptable, POLLIN | POLLRDBAND},
        {PollMode::Writable, SelectMode::Writable, POLLOUT},
        {PollMode::Connected, SelectMode::Connected, POLLOUT},
    };
    for (const auto& [pollMode, selectMode, events] : table) {
        SCOPED_TRACE(static_cast<int>(pollMode));
        int timeout = 0;
        int asked = 0;
        const Interposition pollCall("poll", [&](const Arguments& arguments) {
            asked = reinterpret_cast<pollfd*>(arguments[0])->events;
            timeout = static_cast<int>(arguments[2]);
            return pollCall.CallThrough(arguments);
        });
        std::intptr_t limit = 0;
        const Interposition selectCall("select", [&](const Arguments& arguments) {
            limit = arguments[4];
            return selectCall.CallThrough(arguments);
        });
        const bool isWritable = events == POLLOUT;
        EXPECT_EQ(Poll(client, pollMode, 0), isWritable ? ready : timedOut);
        EXPECT_EQ(asked, events);
        EXPECT_EQ(Select(client, selectMode, 0), isWritable ? ready : nothing);
        EXPECT_NE(limit, 0);
        Send(*connection.server, "x");
        EXPECT_EQ(Poll(client, pollMode, withoutLimit), ready);
        EXPECT_EQ(timeout, -1);
        EXPECT_EQ(Select(client, selectMode, withoutLimit), ready);
        EXPECT_EQ(limit, 0);
        EXPECT_EQ(Receive(client), "'x'");
    }
    for (const int mode : {0, 5}) {
        EXPECT_EQ(Poll(client, static_cast<PollMode>(mode), withoutLimit), invalid);
    }
}

TEST_F(SocketTest, PollAndSelectWaitUntilTheTimeout) {
    const Connection connection = Connect();
    ISocketService& client = *connection.client;
    for (const auto& [mode, timeoutMs] : {std::pair(0, 30U), {2, 30U}, {9, 1030U}}) {
        EXPECT_TRUE(Takes(milliseconds(timeoutMs), [&, mode = mode, timeoutMs = timeoutMs] {
            EXPECT_EQ(Select(client, static_cast<SelectMode>(mode), timeoutMs * 1000), nothing);
        }));
    }
    EXPECT_TRUE(Takes(milliseconds(30), [&] { EXPECT_EQ(Poll(client, PollMode::Readable, 30), timedOut); }));
}

TEST_F(SocketTest, ShutdownWakesWhoPolls) {
    const Connection connection = Connect();
    ISocketService& client = *connection.client;
    std::thread other([&] {
        EXPECT_EQ(Poll(client, PollMode::Readable, withoutLimit), shutDown);
        EXPECT_EQ(Select(client, SelectMode::Readable, withoutLimit), ready);
        EXPECT_EQ(Poll(client, PollMode::Writable), peerClosed);
    });
    EXPECT_EQ(client.Shutdown(), 0);
    other.join();
    EXPECT_EQ(Make(Type::Stream)->Shutdown(), Number(Error::NotConn));
}

TEST_F(SocketTest, NonBlockingNeverWaits) {
    const Connection connection = Connect();
    ISocketService& client = *connection.client;
    EXPECT_EQ(client.SetOptionBlocking(false), 0);
    EXPECT_EQ(Receive(client), wouldBlock);
    std::string sent = ready;
    while (sent[0] != '-') {
        sent = Send(client, std::string(1 << 20, 'x'));
    }
    EXPECT_EQ(sent, wouldBlock);
    EXPECT_EQ(Poll(client, PollMode::Writable, 0), timedOut);
    EXPECT_EQ(client.SetOptionBlocking(true), 0);
    EXPECT_TRUE(Blocks(client));

    int port = 0;
    const Socket listener = Bound(Type::Stream, port, Blocking::NonBlocking);
    unsigned int address = 7;
    int peerPort = 7;
    BasicString peer = "old";
    Error error{};
    EXPECT_EQ(listener->Accept(address, peerPort, error), nullptr);
    EXPECT_EQ(error, Error::WouldBlock);
    error = Error::Success;
    EXPECT_EQ(listener->Accept(peer, error), nullptr);
    EXPECT_EQ(error, Error::WouldBlock);
    EXPECT_EQ(peer + std::to_string(address) + std::to_string(peerPort), "old77");
    const Socket connecting = Make(Type::Stream, Domain::Ipv4, Blocking::NonBlocking);
    EXPECT_EQ(connecting->Connect(serverAddress, port), Number(Error::InProgress));
    EXPECT_EQ(Poll(*connecting, PollMode::Connected), ready);
    // Any other mode blocks.
    EXPECT_TRUE(Blocks(*Make(Type::Stream, Domain::Ipv4, static_cast<Blocking>(3))));
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
    for (const int value : {0, 2, 4}) {
        EXPECT_TRUE(ComesTo([&] { Make(static_cast<Type>(9), static_cast<Domain>(value)); }, noDomain));
    }
    for (const int value : {0, 3}) {
        EXPECT_TRUE(ComesTo([&] { Make(static_cast<Type>(value)); },
                            "VeException: GetPosixSocketType: Could not determine socket type, invalid value."));
    }
    const Socket socket = Make(Type::Datagram);
    for (int port : {65536, -1}) {
        EXPECT_EQ(socket->Bind(serverAddress, port), Number(Error::Inval));
        EXPECT_EQ(socket->Connect(serverAddress, port), Number(Error::Inval));
        EXPECT_EQ(SendTo(*socket, "x", port), invalid);
    }
    int port = 65535;
    EXPECT_EQ(socket->Bind(serverAddress, port), 0);
}

TEST_F(SocketTest, SocketThatWasTakenOverHasNoDomain) {
    int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    int port = 0;
    for (void* const handle : {static_cast<void*>(&descriptor), static_cast<void*>(nullptr)}) {
        const Socket adopted = Own(factory->CreateSocket(handle));
        EXPECT_EQ(adopted->GetSocketDescriptor(), handle != nullptr ? descriptor : -1);
        EXPECT_EQ(ClosesOnExec(*adopted), handle != nullptr);
        const Operation refused[] = {[&] { adopted->Bind(serverAddress, port); }, [&] { adopted->Bind(name); },
                                     [&] { adopted->Connect(serverAddress, port); }, [&] { adopted->Connect(name); },
                                     [&] { SendTo(*adopted, "x", 1); }};
        for (const Operation& operation : refused) {
            EXPECT_TRUE(ComesTo(operation, noDomain));
        }
    }
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(SocketTest, SocketThatCouldNotBeMadeFailsEverything) {
    const auto make = [this] {
        const FailingCall call("socket");
        return Make(Type::Stream);
    };
    const Socket socket = make();
    for (const auto mode : {SelectMode::Readable, SelectMode::Writable, SelectMode::TimeoutOnly}) {
        EXPECT_EQ(Select(*socket, mode, withoutLimit), unclassified);
    }
    EXPECT_TRUE(Takes(milliseconds(2), [&] { EXPECT_EQ(Select(*socket, SelectMode::TimeoutOnly, 2000), nothing); }));
    EXPECT_EQ(Poll(*socket, PollMode::Readable, withoutLimit), closed);
    EXPECT_EQ(Poll(*socket, PollMode::Readable, 1), timedOut);
    EXPECT_EQ(socket->Close(), 0);
}

TEST_F(SocketTest, ClosedSocketTouchesNoOtherThatHasItsNumber) {
    const Connection connection = Connect();
    ISocketService& client = *connection.client;
    int descriptor = client.GetSocketDescriptor();
    EXPECT_EQ(client.Close(), 0);
    EXPECT_EQ(client.GetSocketDescriptor(), -1);
    ASSERT_EQ(dup2(connection.server->GetSocketDescriptor(), descriptor), descriptor);
    const Socket other = Own(factory->CreateSocket(&descriptor));
    EXPECT_EQ(client.Close(), 0);
    EXPECT_EQ(Select(client, SelectMode::TimeoutOnly, withoutLimit), closed);
    EXPECT_EQ(Poll(client, PollMode::Readable, withoutLimit), closed);
    EXPECT_EQ(Send(client, "x"), unclassified);
    EXPECT_EQ(Receive(client), unclassified);
    EXPECT_EQ(client.Shutdown(), -1);
    EXPECT_EQ(client.SetOptionBlocking(false), -1);
    EXPECT_NE(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(SocketTest, CloseThatOvertakesAnOperationIsReportedAsClosed) {
    const std::pair<const char*, std::function<std::string(ISocketService&)>> table[] = {
        {"select", [](auto& socket) { return Select(socket, SelectMode::Readable); }},
        {"select", [](auto& socket) { return Select(socket, SelectMode::TimeoutOnly, 0); }},
        {"poll", [](auto& socket) { return Poll(socket, PollMode::Readable); }},
        {"recv", [](auto& socket) { return Poll(socket, PollMode::Readable); }}};
    for (const auto& [function, operation] : table) {
        const Connection connection = Connect();
        Send(*connection.server, "x");
        Socket successor;
        const Interposition call(function, [&](const Arguments& arguments) {
            connection.client->Close();
            // Has its number, and has been ended by its peer.
            successor = std::move(Connect().client);
            return call.CallThrough(arguments);
        });
        EXPECT_EQ(operation(*connection.client), closed) << function;
    }
}

TEST_F(SocketTest, OfTwoThatCloseOneDoes) {
    for (const std::string function : {"getsockname", "close"}) {
        const Socket socket = Make(Type::Stream, Domain::Local);
        int calls = 0;
        const Interposition call(function.c_str(), [&](const Arguments& arguments) {
            if (++calls == 1) {
                EXPECT_EQ(socket->Close(), 0);
            }
            // Nobody begins to use a number that is about to be free.
            EXPECT_EQ(socket->GetSocketDescriptor() == -1, function == "close");
            return call.CallThrough(arguments);
        });
        EXPECT_EQ(socket->Close(), 0);
        EXPECT_EQ(calls, 1) << function;
    }
}

TEST_F(SocketTest, ClosingIsNoCancellationPoint) {
    const Socket socket = Make(Type::Stream);
    Socket deleted = Make(Type::Stream, Domain::Local);
    const std::ptrdiff_t open = OpenDescriptors();
    std::thread([&] {
        pthread_cancel(pthread_self());
        socket->Close();
        deleted.reset();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }).join();
    EXPECT_EQ(OpenDescriptors(), open - 2);
    EXPECT_EQ(deleted, nullptr);
}

TEST_F(SocketTest, SelectHasAPlaceForEveryDescriptor) {
    if (IsEmulated()) {
        GTEST_SKIP() << "user-mode emulation ends itself at a select with a descriptor above 1023";
    }
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit before = limit;
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 2000);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const Connection connection = Connect();
    Send(*connection.server, "x");
    // An fd_set has 1024 places; a larger one is allocated.
    for (const auto& [number, allocations] : {std::pair(1023, 0), {1024, 1}, {1025, 1}, {1100, 1}}) {
        int descriptor = fcntl(connection.client->GetSocketDescriptor(), F_DUPFD, number);
        const Socket socket = Own(factory->CreateSocket(&descriptor));
        EXPECT_EQ(descriptor, number);
        for (const auto mode : {SelectMode::Readable, SelectMode::Writable}) {
            Error error = Error::Unclassified;
            const long allocationsBefore = MadeAllocations();
            EXPECT_EQ(socket->Select(mode, 0, error), 1);
            EXPECT_EQ(MadeAllocations() - allocationsBefore, allocations) << number;
        }
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(SocketTest, ConnectionThatCannotBeTakenOverIsClosed) {
    int port = 0;
    const Socket listener = Bound(Type::Stream, port);
    const Socket client = Make(Type::Stream);
    EXPECT_EQ(client->Connect(serverAddress, port), 0);
    {
        const FailingAllocation allocation(0);
        EXPECT_THROW(Accept(*listener), std::bad_alloc);
    }
    EXPECT_EQ(Poll(*client, PollMode::Readable), peerClosed);
}

TEST_F(SocketTest, FailuresAreReported) {
    const Socket socket = Make(Type::Stream);
    const Socket closing = Make(Type::Stream);
    // Closed by nobody else when close fails.
    const FileDescriptor descriptor(closing->GetSocketDescriptor());
    const auto makeNonBlocking = [this] { Make(Type::Stream, Domain::Ipv4, Blocking::NonBlocking); };
    const auto bind = [&] {
        int port = 0;
        return socket->Bind(serverAddress, port);
    };
    const Socket local = Make(Type::Stream, Domain::Local);
    ASSERT_EQ(BindToPath(local->GetSocketDescriptor(), folder / "local"), 0);
    const auto closeLocal = [&] { return local->Close(); };
    const auto deleteLocal = [&] { delete local.get(); };
    const std::string unknown = "VeException: Could not query if local domain is bound to a file.";
    const std::string notUnlinked = "VeException: Could not unlink socket file.";
    ExpectFailures({
        {"socket", makeNonBlocking, "VeException: Could not create non-blocking socket. Error Bad file descriptor."},
        {"ioctl", makeNonBlocking, "VeException: Could not create non-blocking socket. Error Permission denied."},
        {"getsockname", bind, "10055", 0, ENOBUFS},
        {"select", [&] { return Select(*socket, SelectMode::Readable); }, "-1, error 10004", 0, EINTR},
        {"poll", [&] { return Poll(*socket, PollMode::Readable); }, "-1, error 10004", 0, EINTR},
        {"close", [&] { return closing->Close(); }, "10055", 0, ENOBUFS},
        {"getsockname", closeLocal, unknown},
        {"unlink", closeLocal, notUnlinked},
        {"getsockname", deleteLocal, "ends the process: " + unknown},
        {"unlink", deleteLocal, "ends the process: " + notUnlinked},
    });
    EXPECT_EQ(closing->GetSocketDescriptor(), -1);
    // It stays open until it can be closed.
    EXPECT_EQ(Select(*local, SelectMode::Writable), ready);
    EXPECT_EQ(local->Close(), 0);
    EXPECT_FALSE(std::filesystem::exists(folder / "local"));
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

// NOLINTEND(performance-no-int-to-ptr)
