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

#include <climits>

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

int Number(Error error) { return static_cast<int>(error); }

/// The result of an operation that tells an error beside it.
template <typename Function>
std::string Tell(Function operation) {
    Error error = Error::Unclassified;
    const int result = operation(error);
    return std::to_string(result) + ", error " + std::to_string(Number(error));
}

std::string Send(ISocketService& socket, const std::string& text) {
    return Tell([&](Error& error) { return socket.Send(text.data(), static_cast<unsigned int>(text.size()), error); });
}

std::string SendTo(ISocketService& socket, int port, const std::string& text) {
    return Tell([&](Error& error) {
        return socket.SendTo(text.data(), static_cast<unsigned int>(text.size()), error, serverAddress, port);
    });
}

std::string Poll(ISocketService& socket, PollMode mode, unsigned int timeoutMs = 20000) {
    return Tell([&](Error& error) { return socket.Poll(mode, timeoutMs, error); });
}

std::string Select(ISocketService& socket, SelectMode mode, unsigned int timeoutUs = 20000000) {
    return Tell([&](Error& error) { return socket.Select(mode, timeoutUs, error); });
}

/// The text that comes next or, when there is none, the result.
std::string Receive(ISocketService& socket) {
    char buffer[100] = "";
    const std::string result = Tell([&](Error& error) { return socket.Recv(buffer, sizeof buffer, error); });
    return buffer[0] != '\0' ? buffer : result;
}

/// Binds to a path, which no operation of the library's does.
void BindToPath(int descriptor, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
}

bool ClosesOnExec(const ISocketService& socket) { return fcntl(socket.GetSocketDescriptor(), F_GETFD) == FD_CLOEXEC; }
bool Blocks(const ISocketService& socket) { return (fcntl(socket.GetSocketDescriptor(), F_GETFL) & O_NONBLOCK) == 0; }

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

    /// Connects client and server by TCP.
    void Connect() {
        int port = 0;
        int clientPort = 0;
        const Socket listener = Bound(Type::Stream, port);
        client = Make(Type::Stream);
        ASSERT_EQ(client->Bind(clientAddress, clientPort), 0);
        ASSERT_EQ(client->Connect(serverAddress, port), 0);
        unsigned int address = 0;
        int peerPort = 0;
        Error error = Error::Unclassified;
        // Closed on exec from the beginning, not only since it was taken over.
        const FailingCall call("fcntl");
        server = Own(listener->Accept(address, peerPort, error));
        EXPECT_EQ(std::tuple(error, address, peerPort), std::tuple(Error::Success, clientAddress, clientPort));
        EXPECT_TRUE(ClosesOnExec(*client) && ClosesOnExec(*server));
    }

    const BasicString name = UniqueName("socket");
    Socket client;
    Socket server;
};

TEST_F(SocketTest, DatagramsCarryTheirSender) {
    int port = 0;
    int senderPort = 0;
    const Socket receiver = Bound(Type::Datagram, port, Blocking::NonBlocking);
    const Socket sender = Bound(Type::Datagram, senderPort, Blocking::Blocking, clientAddress);
    unsigned int address = 0;
    int from = 0;
    char buffer[10];
    const auto receive = [&](Error& error) { return receiver->RecvFrom(buffer, sizeof buffer, error, address, from); };
    EXPECT_EQ(SendTo(*sender, port, "hello"), "5, error 0");
    EXPECT_EQ(Tell(receive), "5, error 0");
    EXPECT_EQ(Tell(receive), wouldBlock);
    EXPECT_EQ(std::tuple(address, from), std::tuple(clientAddress, senderPort));
    // An empty one looks like a closed connection to Poll, but not to Recv.
    EXPECT_EQ(SendTo(*sender, port, ""), nothing);
    EXPECT_EQ(Poll(*receiver, PollMode::Readable), peerClosed);
    EXPECT_EQ(Receive(*receiver), nothing);
}

TEST_F(SocketTest, LocalNamesAreAbstract) {
    // 106 characters count, and the nulls before and behind them.
    const BasicString longName = name + std::string(106 - name.size(), 'x');
    for (const auto& [bound, other, connected] :
         {std::tuple(name, name + "x", name),
          {longName + "and more", longName.substr(0, 105), longName + "or other"}}) {
        const Socket listener = Make(Type::Stream, Domain::Local);
        EXPECT_EQ(listener->Bind(bound), 0);
        EXPECT_EQ(listener->Listen(1), 0);
        client = Make(Type::Stream, Domain::Local);
        EXPECT_EQ(client->Connect(other), Number(Error::ConnRefused));
        EXPECT_EQ(client->Connect(connected), 0);
        BasicString peer = "old";
        Error error = Error::Unclassified;
        server = Own(listener->Accept(peer, error));
        EXPECT_EQ(peer, "");
    }
    // What has no place for a name stays as it is.
    std::string buffer = "..";
    SocketService::MakeAbstract(buffer.data(), 1, name);
    EXPECT_EQ(buffer, "..");
}

TEST_F(SocketTest, SocketFileIsRemovedByWhoIsBoundToIt) {
    // 107 characters of a path count for connecting.
    const TemporaryFolder folder;
    const std::string path = folder / std::string(107 - (folder / "").size(), 'y');
    int descriptor = socket(AF_UNIX, SOCK_DGRAM, 0);
    BindToPath(descriptor, path);
    const Socket adopted = Own(factory->CreateSocket(&descriptor));
    const Socket sender = Own(factory->CreateNonAbstractIpcSocket());
    EXPECT_EQ(sender->Connect(path + "z"), 0);
    EXPECT_EQ(Send(*sender, "x"), ready);
    EXPECT_EQ(sender->Close() + adopted->Close(), 0);
    EXPECT_TRUE(std::filesystem::exists(path));

    // Here the path fills its place to the last byte, and has no end.
    client = Make(Type::Stream, Domain::Local);
    BindToPath(client->GetSocketDescriptor(), path + "z");
    const Socket listener = Make(Type::Stream, Domain::Local);
    EXPECT_EQ(listener->Bind(name) + listener->Listen(1) + client->Connect(name), 0);
    BasicString peer;
    Error error{};
    EXPECT_TRUE(Own(listener->Accept(peer, error)));
    EXPECT_EQ(peer, path + "z");
    EXPECT_EQ(client->Close(), 0);
    EXPECT_FALSE(std::filesystem::exists(path + "z"));
}

TEST_F(SocketTest, EndOfThePeerIsSeen) {
    Connect();
    EXPECT_EQ(client->Shutdown(ShutdownMode::Send), 0);
    EXPECT_EQ(Poll(*server, PollMode::Readable), peerClosed);
    EXPECT_EQ(Receive(*server), nothing);
    EXPECT_EQ(Send(*server, "still"), "5, error 0");
    EXPECT_EQ(Receive(*client), "still");
    // Without SIGPIPE.
    EXPECT_EQ(Send(*client, "x"), notConnected);
    EXPECT_EQ(SendTo(*client, 1, "x"), notConnected);
}

TEST_F(SocketTest, PollJudgesWhatTheSystemReports) {
    Connect();
    // The second result is that after a Shutdown by this side.
    const std::tuple<int, const char*, const char*> table[] = {
        {POLLIN, ready, shutDown},
        {POLLRDNORM, ready, shutDown},
        {POLLRDBAND, ready, shutDown},
        {POLLOUT, ready, shutDown},
        {POLLWRNORM, ready, shutDown},
        {POLLWRBAND, ready, shutDown},
        {POLLIN | POLLHUP, peerClosed, shutDown},
        {POLLHUP | POLLNVAL | POLLERR, peerClosed, peerClosed},
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
                // NOLINTNEXTLINE(performance-no-int-to-ptr): the arguments are machine words.
                auto& polled = *reinterpret_cast<pollfd*>(arguments[0]);
                EXPECT_EQ(polled.events, POLLIN | POLLRDBAND);
                polled.revents = static_cast<short>(events);
                return 1;
            });
            EXPECT_EQ(Poll(*client, PollMode::Readable), isShutdown ? afterShutdown : result) << events;
        }
        // Known before it happens.
        const Interposition call("shutdown", [&](const Arguments& arguments) {
            EXPECT_EQ(Poll(*client, PollMode::Writable), shutDown);
            return call.CallThrough(arguments);
        });
        client->Shutdown(ShutdownMode::Receive);
    }
}

TEST_F(SocketTest, PollAndSelectWaitForWhatTheModeSays) {
    Connect();
    std::intptr_t limit = 0;
    const Interposition call("select", [&](const Arguments& arguments) {
        limit = arguments[4];
        return call.CallThrough(arguments);
    });
    for (const auto& [pollMode, selectMode, isForWriting] :
         {std::tuple(PollMode::Readable, SelectMode::Readable, false),
          {PollMode::Acceptable, SelectMode::Acceptable, false},
          {PollMode::Writable, SelectMode::Writable, true},
          {PollMode::Connected, SelectMode::Connected, true}}) {
        EXPECT_EQ(Poll(*client, pollMode, 0), isForWriting ? ready : timedOut);
        EXPECT_EQ(Select(*client, selectMode, 0), isForWriting ? ready : nothing);
        EXPECT_NE(limit, 0);
        Send(*server, "x");
        EXPECT_EQ(Poll(*client, pollMode, withoutLimit), ready);
        EXPECT_EQ(Select(*client, selectMode, withoutLimit), ready);
        EXPECT_EQ(limit, 0);
        EXPECT_EQ(Receive(*client), "x");
    }
    for (const auto& [mode, timeoutMs] : {std::pair(0, 30U), {2, 30U}, {9, 1030U}}) {
        EXPECT_TRUE(Takes(milliseconds(timeoutMs), [&, mode = mode, timeoutMs = timeoutMs] {
            EXPECT_EQ(Select(*client, static_cast<SelectMode>(mode), timeoutMs * 1000), nothing);
        }));
    }
    EXPECT_TRUE(Takes(milliseconds(30), [&] { EXPECT_EQ(Poll(*client, PollMode::Readable, 30), timedOut); }));
    EXPECT_EQ(client->Shutdown(), 0);
    EXPECT_EQ(Poll(*client, PollMode::Readable, withoutLimit), shutDown);
    EXPECT_EQ(Poll(*client, PollMode::Writable), peerClosed);
}

TEST_F(SocketTest, NonBlockingNeverWaits) {
    Connect();
    EXPECT_EQ(client->SetOptionBlocking(false), 0);
    EXPECT_EQ(Receive(*client), wouldBlock);
    EXPECT_EQ(client->SetOptionBlocking(true), 0);
    int port = 0;
    const Socket listener = Bound(Type::Stream, port, Blocking::NonBlocking);
    unsigned int address = 7;
    int peerPort = 7;
    BasicString peer = "old";
    Error error{};
    EXPECT_EQ(listener->Accept(address, peerPort, error), nullptr);
    EXPECT_EQ(listener->Accept(peer, error), nullptr);
    EXPECT_EQ(std::tuple(error, address, peerPort, peer), std::tuple(Error::WouldBlock, 7U, 7, "old"));
    // Any other mode blocks.
    EXPECT_TRUE(Blocks(*client) && Blocks(*server) && Blocks(*Own(factory->CreateNonAbstractIpcSocket())) &&
                Blocks(*Make(Type::Stream, Domain::Ipv4, static_cast<Blocking>(3))));
}

TEST_F(SocketTest, OptionsReachTheSystem) {
    const std::tuple<Option, int, int> table[] = {{Option::TcpNoDelay, IPPROTO_TCP, TCP_NODELAY},
                                                  {Option::ReuseAddress, SOL_SOCKET, SO_REUSEADDR},
                                                  {Option::KeepAlive, SOL_SOCKET, SO_KEEPALIVE},
                                                  {Option::Broadcast, SOL_SOCKET, SO_BROADCAST},
                                                  {Option::TcpKeepAliveIdle, IPPROTO_TCP, TCP_KEEPIDLE},
                                                  {Option::TcpKeepAliveInterval, IPPROTO_TCP, TCP_KEEPINTVL},
                                                  {Option::TcpKeepAliveCount, IPPROTO_TCP, TCP_KEEPCNT},
                                                  {Option::ReceiveTimeout, SOL_SOCKET, SO_RCVTIMEO},
                                                  {Option::SendTimeout, SOL_SOCKET, SO_SNDTIMEO},
                                                  // Refused for want of a level.
                                                  {Option::TcpUserTimeout, -1, TCP_USER_TIMEOUT},
                                                  {Option::Linger, -1, SO_LINGER},
                                                  {static_cast<Option>(2), -1, -1}};
    const Socket socket = Make(Type::Stream);
    for (const auto& [option, level, systemName] : table) {
        // As a time or, in its first part, as a number.
        timeval value{3, 500000};
        EXPECT_EQ(SocketService::GetLinuxSocketOptionName(option), systemName);
        EXPECT_EQ(socket->SetSockOpt(option, &value, sizeof value), level == -1 ? -1 : 0);
        timeval read{};
        timeval expected{};
        socklen_t expectedLength = sizeof expected;
        getsockopt(socket->GetSocketDescriptor(), level, systemName, &expected, &expectedLength);
        unsigned int length = sizeof read + 1;
        EXPECT_EQ(socket->GetSockOpt(option, &read, &length), level == -1 ? -1 : 0);
        EXPECT_EQ(std::tuple(read.tv_sec, read.tv_usec, length),
                  std::tuple(expected.tv_sec, expected.tv_usec, sizeof read + 1));
        EXPECT_EQ(expected.tv_sec != 0, level != -1);
    }
}

TEST_F(SocketTest, KeepAliveGettersGiveTheResultOfTheQuery) {
    const std::tuple<int (ISocketService::*)(int), int (ISocketService::*)(int&), int> table[] = {
        {&ISocketService::SetOptionKeepAliveIdleTime, &ISocketService::GetOptionKeepAliveIdleTime, TCP_KEEPIDLE},
        {&ISocketService::SetOptionKeepAliveProbeInterval, &ISocketService::GetOptionKeepAliveProbeInterval,
         TCP_KEEPINTVL},
        {&ISocketService::SetOptionKeepAliveProbeCount, &ISocketService::GetOptionKeepAliveProbeCount, TCP_KEEPCNT}};
    const Socket socket = Make(Type::Stream);
    for (const auto& [set, get, systemName] : table) {
        EXPECT_EQ((*socket.*set)(7), 0);
        int value = 0;
        socklen_t length = sizeof value;
        getsockopt(socket->GetSocketDescriptor(), IPPROTO_TCP, systemName, &value, &length);
        EXPECT_EQ(value, 7);
        EXPECT_NE((*Make(Type::Datagram).*get)(value), 0);
        EXPECT_EQ(value, 7);
        EXPECT_EQ((*socket.*get)(value), 0);
        EXPECT_EQ(value, 0);
    }
    bool enable = true;
    unsigned int value = 7;
    for (const int refused : {socket->SetOptionLinger(true, 1), socket->GetOptionLinger(enable, value),
                              socket->SetOptionUserTimeout(1), socket->GetOptionUserTimeout(value)}) {
        EXPECT_EQ(refused, -1);
    }
    EXPECT_EQ(std::tuple(enable, value), std::tuple(true, 7U));
}

TEST_F(SocketTest, BadArgumentsAreRefused) {
    constexpr char noType[] = "VeException: GetPosixSocketType: Could not determine socket type, invalid value.";
    for (const auto& [type, domain, outcome] :
         {std::tuple(9, 0, noDomain), {1, 2, noDomain}, {1, 4, noDomain}, {0, 1, noType}, {3, 1, noType}}) {
        EXPECT_TRUE(
            ComesTo([&, type = type, domain = domain] { Make(static_cast<Type>(type), static_cast<Domain>(domain)); },
                    outcome));
    }
    const Socket socket = Make(Type::Datagram);
    for (int port : {65536, -1}) {
        EXPECT_EQ(socket->Bind(serverAddress, port), Number(Error::Inval));
        EXPECT_EQ(socket->Connect(serverAddress, port), Number(Error::Inval));
        EXPECT_EQ(SendTo(*socket, port, "x"), invalid);
    }
    for (const int mode : {0, 5}) {
        EXPECT_EQ(Poll(*socket, static_cast<PollMode>(mode), withoutLimit), invalid);
    }
}

TEST_F(SocketTest, SocketThatWasTakenOverHasNoDomain) {
    int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    for (void* const handle : {static_cast<void*>(&descriptor), static_cast<void*>(nullptr)}) {
        const Socket adopted = Own(factory->CreateSocket(handle));
        EXPECT_EQ(adopted->GetSocketDescriptor(), handle != nullptr ? descriptor : -1);
        EXPECT_EQ(ClosesOnExec(*adopted), handle != nullptr);
        int port = 0;
        const Operation refused[] = {[&] { adopted->Bind(serverAddress, port); }, [&] { adopted->Bind(name); },
                                     [&] { adopted->Connect(serverAddress, port); }, [&] { adopted->Connect(name); },
                                     [&] { SendTo(*adopted, 1, "x"); }};
        for (const Operation& operation : refused) {
            EXPECT_TRUE(ComesTo(operation, noDomain));
        }
    }
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(SocketTest, NumberThatIsNoDescriptorIsRefused) {
    for (int number : {-2, -111, INT_MIN, INT_MAX, 100000}) {
        SCOPED_TRACE(number);
        const Socket adopted = Own(factory->CreateSocket(&number));
        EXPECT_EQ(Select(*adopted, SelectMode::Readable, withoutLimit), unclassified);
        EXPECT_EQ(Select(*adopted, SelectMode::TimeoutOnly, 0), nothing);
        EXPECT_EQ(Poll(*adopted, PollMode::Readable, withoutLimit), closed);
    }
}

TEST_F(SocketTest, SocketThatCouldNotBeMadeFailsEverything) {
    const FailingCall call("socket");
    const Socket socket = Make(Type::Stream);
    for (const auto mode : {SelectMode::Readable, SelectMode::Writable, SelectMode::TimeoutOnly}) {
        EXPECT_EQ(Select(*socket, mode, withoutLimit), unclassified);
    }
    EXPECT_TRUE(Takes(milliseconds(2), [&] { EXPECT_EQ(Select(*socket, SelectMode::TimeoutOnly, 2000), nothing); }));
    EXPECT_EQ(Poll(*socket, PollMode::Readable, withoutLimit), closed);
    EXPECT_EQ(Poll(*socket, PollMode::Readable, 1), timedOut);
    EXPECT_EQ(socket->Close(), 0);
}

TEST_F(SocketTest, ClosedSocketTouchesNoOtherThatHasItsNumber) {
    Connect();
    int descriptor = client->GetSocketDescriptor();
    EXPECT_EQ(client->Close(), 0);
    EXPECT_EQ(dup2(server->GetSocketDescriptor(), descriptor), descriptor);
    const Socket other = Own(factory->CreateSocket(&descriptor));
    EXPECT_EQ(client->Close(), 0);
    EXPECT_EQ(Select(*client, SelectMode::TimeoutOnly, withoutLimit), closed);
    EXPECT_EQ(Poll(*client, PollMode::Readable, 0x7FFFFFFF), closed);
    EXPECT_NE(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(SocketTest, CloseThatOvertakesAnOperationIsReportedAsClosed) {
    const std::pair<const char*, std::function<std::string(ISocketService&)>> table[] = {
        {"select", [](auto& socket) { return Select(socket, SelectMode::Readable); }},
        {"poll", [](auto& socket) { return Poll(socket, PollMode::Readable); }},
        {"recv", [](auto& socket) { return Poll(socket, PollMode::Readable); }}};
    for (const auto& [function, operation] : table) {
        Connect();
        Send(*server, "x");
        const Interposition call(function, [&](const Arguments& arguments) {
            const std::intptr_t result = call.CallThrough(arguments);
            client->Close();
            return result;
        });
        // Nobody reads from a number that is free.
        const Interposition reading("recv", [&](const Arguments& arguments) {
            EXPECT_NE(client->GetSocketDescriptor(), -1);
            return reading.CallThrough(arguments);
        });
        EXPECT_EQ(operation(*client), closed) << function;
    }
}

TEST_F(SocketTest, ClosesOnceAndIsNotCancelledThere) {
    for (const char* const function : {"getsockname", "close"}) {
        const Socket socket = Make(Type::Stream, Domain::Local);
        EXPECT_EQ(CountCallsOfTwo(function, [&] { EXPECT_EQ(socket->Close(), 0); }), 1);
    }
    const Socket socket = Make(Type::Stream);
    const Interposition call("close", [&](const Arguments& arguments) {
        // Nobody begins to use a number that is about to be free.
        EXPECT_EQ(socket->GetSocketDescriptor(), -1);
        return call.CallThrough(arguments);
    });
    EXPECT_TRUE(HasNoCancellationPoint([&] { socket->Close(); }));
}

TEST_F(SocketTest, SelectHasAPlaceForEveryDescriptor) {
    if (IsEmulated()) {
        GTEST_SKIP() << "user-mode emulation ends itself at a select with a descriptor above 1023";
    }
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 2000);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    Connect();
    // An fd_set has 1024 places; a larger one is allocated.
    for (const auto& [number, allocations] : {std::pair(1023, 0), {1024, 1}, {1100, 1}}) {
        int descriptor = fcntl(client->GetSocketDescriptor(), F_DUPFD, number);
        const Socket socket = Own(factory->CreateSocket(&descriptor));
        Error error = Error::Unclassified;
        const long allocationsBefore = MadeAllocations();
        EXPECT_EQ(socket->Select(SelectMode::Readable, 0, error), 0);
        EXPECT_EQ(socket->Select(SelectMode::Writable, 0, error), 1);
        EXPECT_EQ(MadeAllocations() - allocationsBefore, 2 * allocations) << number;
    }
}

TEST_F(SocketTest, ConnectionThatCannotBeTakenOverIsClosed) {
    int port = 0;
    const Socket listener = Bound(Type::Stream, port);
    client = Make(Type::Stream);
    EXPECT_EQ(client->Connect(serverAddress, port), 0);
    BasicString peer;
    Error error{};
    const FailingAllocation allocation(0);
    EXPECT_THROW(listener->Accept(peer, error), std::bad_alloc);
}

TEST_F(SocketTest, FailuresAreReported) {
    const Socket socket = Make(Type::Stream);
    const Socket closing = Make(Type::Stream);
    const FileDescriptor descriptor(closing->GetSocketDescriptor());
    const auto makeNonBlocking = [this] { Make(Type::Stream, Domain::Ipv4, Blocking::NonBlocking); };
    int port = 0;
    const TemporaryFolder folder;
    const Socket local = Make(Type::Stream, Domain::Local);
    BindToPath(local->GetSocketDescriptor(), folder / "local");
    const auto closeLocal = [&] { return local->Close(); };
    ExpectFailures({
        {"socket", makeNonBlocking, "VeException: Could not create non-blocking socket. Error Bad file descriptor."},
        {"ioctl", makeNonBlocking, "VeException: Could not create non-blocking socket. Error Permission denied."},
        {"bind", [&] { return socket->Bind(serverAddress, port); }, "10055", 0, ENOBUFS},
        {"getsockname", [&] { return socket->Bind(serverAddress, port); }, "10055", 0, ENOBUFS},
        {"select", [&] { return Select(*socket, SelectMode::Readable); }, "-1, error 10004", 0, EINTR},
        {"poll", [&] { return Poll(*socket, PollMode::Readable); }, "-1, error 10004", 0, EINTR},
        {"close", [&] { return closing->Close(); }, "10055", 0, ENOBUFS},
        {"getsockname", closeLocal, "VeException: Could not query if local domain is bound to a file."},
        {"unlink", closeLocal, "VeException: Could not unlink socket file."},
        {"unlink", [&] { delete local.get(); }, "ends the process: VeException: Could not unlink socket file."},
        // It stays open.
        {"select", [&] { return Select(*local, SelectMode::Writable); }, "-1, error 10004", 0, EINTR},
    });
    EXPECT_EQ(closing->GetSocketDescriptor(), -1);
    EXPECT_EQ(local->Close(), 0);
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
