#include "support/Test.h"

#include <Kel/System/Ve/Internal/Linux/FileDescriptor.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
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
using Error = ISocketService::SocketError;
using Result = std::pair<int, Error>;
using Socket = std::unique_ptr<ISocketService>;
using Arguments = Interposition::Arguments;

constexpr unsigned int withoutLimit = 0xFFFFFFFF;
// Neither is the address that the system chooses by itself.
const unsigned int serverAddress = htonl(INADDR_LOOPBACK + 1);
const unsigned int clientAddress = htonl(INADDR_LOOPBACK + 2);

const Result nothing(0, Error::Success);
const Result ready(1, Error::Success);
const Result peerClosed(1, Error::ConnReset);
const Result shutDown(1, Error::Shutdown);
const Result timedOut(0, Error::TimedOut);
const Result unclassified(-1, Error::Unclassified);
const Result closed(-1, Error::NotSock);
constexpr char noDomain[] = "VeException: GetPosixSocketDomain: Could not determine socket domain, invalid value.";

int Number(Error error) { return static_cast<int>(error); }

/// The result of an operation that tells an error beside it.
template <typename Function>
Result Tell(Function operation) {
    Error error = Error::Unclassified;
    const int result = operation(error);
    return {result, error};
}

Result Send(ISocketService& socket) {
    return Tell([&](Error& error) { return socket.Send("x", 1, error); });
}

Result SendTo(ISocketService& socket, int port) {
    return Tell([&](Error& error) { return socket.SendTo("x", 1, error, serverAddress, port); });
}

Result Receive(ISocketService& socket) {
    char bytes[2];
    return Tell([&](Error& error) { return socket.Recv(bytes, sizeof bytes, error); });
}

Result Poll(ISocketService& socket, PollMode mode, unsigned int timeoutMs = 20000) {
    return Tell([&](Error& error) { return socket.Poll(mode, timeoutMs, error); });
}

Result Select(ISocketService& socket, SelectMode mode, unsigned int timeoutUs = 20000000) {
    return Tell([&](Error& error) { return socket.Select(mode, timeoutUs, error); });
}

/// Binds to a path, which no operation of the library's does.
void BindTo(const std::string& place, int descriptor) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    place.copy(address.sun_path, sizeof address.sun_path);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
}

/// A text that the next function has on the stack without a terminating null is longer then.
[[gnu::noinline]] void LeaveNoNullOnTheStack() {
    volatile char stack[2000];
    std::fill(std::begin(stack), std::end(stack), 'x');
}

bool ClosesOnExec(const ISocketService& socket) { return fcntl(socket.GetSocketDescriptor(), F_GETFD) == FD_CLOEXEC; }
bool Blocks(const ISocketService& socket) { return (fcntl(socket.GetSocketDescriptor(), F_GETFL) & O_NONBLOCK) == 0; }

class SocketTest : public FactoryTest {
protected:
    Socket Make(Type type, Domain domain = Domain::Ipv4, Blocking blocking = Blocking::Blocking) {
        return Own(factory->CreateSocket(type, domain, blocking));
    }

    Socket Adopt(int descriptor) { return Own(factory->CreateSocket(&descriptor)); }

    /// A socket and its port, which the system chooses.
    std::pair<Socket, int> Bound(Type type, unsigned int address) {
        std::pair<Socket, int> bound(Make(type), 0);
        EXPECT_EQ(bound.first->Bind(address, bound.second), 0);
        return bound;
    }

    void Connect() {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client = Adopt(ends[0]);
        server = Adopt(ends[1]);
    }

    const BasicString name = UniqueName("socket");
    Socket client;
    Socket server;
};

TEST_F(SocketTest, AcceptTellsWhoHasConnected) {
    const auto [listener, port] = Bound(Type::Stream, serverAddress);
    const auto [first, firstPort] = Bound(Type::Stream, clientAddress);
    unsigned int address = 0;
    int from = 0;
    BasicString peer = "old";
    Error error = Error::Unclassified;
    EXPECT_EQ(listener->Listen(1), 0);
    EXPECT_EQ(first->Connect(serverAddress, port), 0);
    // Closed on exec from the beginning, not only since it was taken over.
    const FailingCall call("fcntl");
    server = Own(listener->Accept(address, from, error));
    EXPECT_TRUE(ClosesOnExec(*server) && ClosesOnExec(*first));
    EXPECT_EQ(listener->SetOptionBlocking(false), 0);
    EXPECT_EQ(listener->Accept(address, from, error), nullptr);
    EXPECT_EQ(listener->Accept(peer, error), nullptr);
    EXPECT_EQ(std::tuple(error, address, from, peer), std::tuple(Error::WouldBlock, clientAddress, firstPort, "old"));
    EXPECT_EQ(listener->SetOptionBlocking(true), 0);
    // A connection that cannot be taken over is closed.
    EXPECT_EQ(Make(Type::Stream)->Connect(serverAddress, port), 0);
    const FailingAllocation allocation(0);
    EXPECT_THROW(listener->Accept(peer, error), std::bad_alloc);
}

TEST_F(SocketTest, SocketFileIsRemovedByWhoIsBoundToIt) {
    // 107 characters of a path count for connecting.
    const TemporaryFolder folder;
    const std::string path = folder / std::string(107 - (folder / "").size(), 'y');
    const Socket adopted = Adopt(socket(AF_UNIX, SOCK_DGRAM, 0));
    BindTo(path, adopted->GetSocketDescriptor());
    const Socket sender = Own(factory->CreateNonAbstractIpcSocket());
    EXPECT_TRUE(Blocks(*sender));
    EXPECT_EQ(sender->Connect(path + "z") + sender->Close() + adopted->Close(), 0);
    EXPECT_TRUE(std::filesystem::exists(path));

    // Here the path fills its place to the last byte, and has no end.
    const Socket bound = Make(Type::Stream, Domain::Local);
    BindTo(path + "z", bound->GetSocketDescriptor());
    client = Make(Type::Stream, Domain::Local);
    ISocketService& listener = *client;
    EXPECT_EQ(listener.Bind(name), 0);
    EXPECT_EQ(CallsOf("listen", [&] { listener.Listen(9); }).at(0)[1], 9);
    EXPECT_EQ(bound->Connect(name), 0);
    BasicString peer;
    Error error{};
    LeaveNoNullOnTheStack();
    server.reset(listener.Accept(peer, error));
    EXPECT_EQ(peer, path + "z");
    std::vector<Arguments> removed;
    const auto asked = CallsOf("getsockname", [&] { removed = CallsOf("unlink", [&] { bound->Close(); }); });
    // In a copy, for there is no place for a null behind the address.
    EXPECT_GE(std::abs(removed.at(0)[0] - asked.at(0)[1]), std::intptr_t{sizeof(sockaddr_un)});
    EXPECT_FALSE(std::filesystem::exists(path + "z"));

    // An address of another kind is no path.
    dynamic_cast<SocketService&>(*Bound(Type::Stream, serverAddress).first).Unlink();
}

TEST_F(SocketTest, EndOfThePeerIsSeen) {
    Connect();
    EXPECT_EQ(client->Shutdown(ISocketService::ShutdownMode::Send), 0);
    EXPECT_EQ(Poll(*server, PollMode::Readable), peerClosed);
    EXPECT_EQ(Receive(*server), nothing);
    EXPECT_EQ(Send(*server), ready);
    EXPECT_EQ(Receive(*client), ready);
    // Without SIGPIPE.
    EXPECT_EQ(Send(*client), Result(-1, Error::NotConn));
    EXPECT_EQ(SendTo(*Make(Type::Stream), 1), Result(-1, Error::NotConn));
}

TEST_F(SocketTest, PollJudgesWhatTheSystemReports) {
    client = Make(Type::Datagram);
    // Events, each alone; the result; the result after a Shutdown by this side.
    const std::tuple<std::vector<int>, Result, Result> table[] = {
        {{POLLIN, POLLRDNORM, POLLRDBAND, POLLOUT, POLLWRNORM, POLLWRBAND}, ready, shutDown},
        {{POLLIN | POLLHUP}, peerClosed, shutDown},
        {{POLLHUP | POLLNVAL | POLLERR, POLLIN | POLLRDHUP}, peerClosed, peerClosed},
        {{POLLNVAL | POLLERR}, closed, closed},
        {{0, POLLPRI, POLLERR | POLLRDHUP}, unclassified, unclassified},
        {{POLLIN | POLLRDBAND}, {-1, Error::VerNotSupported}, {-1, Error::VerNotSupported}},
    };
    int reported = 0;
    const Interposition call("poll", [&](const Arguments& arguments) {
        auto& polled = *Interposition::Pointer<pollfd>(arguments[0]);
        EXPECT_EQ(polled.events, POLLIN | POLLRDBAND);
        polled.revents = static_cast<short>(reported);
        return 1;
    });
    const auto expectResults = [&](bool isShutdown) {
        for (const auto& [events, result, afterShutdown] : table) {
            for (const int event : events) {
                reported = event;
                EXPECT_EQ(Poll(*client, PollMode::Readable), isShutdown ? afterShutdown : result) << event;
            }
        }
        return 0;
    };
    expectResults(false);
    // Known before it happens.
    const Interposition shutting("shutdown", [&](const Arguments& /*arguments*/) { return expectResults(true); });
    EXPECT_EQ(client->Shutdown(), 0);
}

TEST_F(SocketTest, PollAndSelectWaitForWhatTheModeSays) {
    Connect();
    std::string limit;
    const Interposition call("select", [&](const Arguments& arguments) {
        const auto* const time = Interposition::Pointer<timeval>(arguments[4]);
        limit = time == nullptr ? "none" : std::to_string(time->tv_sec) + "s " + std::to_string(time->tv_usec) + "us";
        return call.CallThrough(arguments);
    });
    for (const auto& [pollMode, selectMode, isForWriting] :
         {std::tuple(PollMode::Readable, SelectMode::Readable, false),
          {PollMode::Acceptable, SelectMode::Acceptable, false},
          {PollMode::Writable, SelectMode::Writable, true},
          {PollMode::Connected, SelectMode::Connected, true}}) {
        EXPECT_EQ(Poll(*client, pollMode, 0), isForWriting ? ready : timedOut);
        EXPECT_EQ(Select(*client, selectMode, 0), isForWriting ? ready : nothing);
        Send(*server);
        EXPECT_EQ(Poll(*client, pollMode), ready);
        EXPECT_EQ(Select(*client, selectMode, 1030000), ready);
        EXPECT_EQ(limit, "1s 30000us");
        EXPECT_EQ(Receive(*client), ready);
    }
    EXPECT_TRUE(Takes(milliseconds(30), [&] { EXPECT_EQ(Poll(*client, PollMode::Readable, 30), timedOut); }));
    EXPECT_EQ(client->Shutdown(), 0);
    EXPECT_EQ(Poll(*client, PollMode::Readable, withoutLimit), shutDown);
    EXPECT_EQ(Poll(*client, PollMode::Writable), peerClosed);
    EXPECT_EQ(Select(*client, SelectMode::Readable, withoutLimit), ready);
    EXPECT_EQ(limit, "none");
    // No other mode waits for the socket.
    const auto mode = static_cast<SelectMode>(9);
    EXPECT_TRUE(Takes(milliseconds(30), [&] { EXPECT_EQ(Select(*client, mode, 30000), nothing); }));
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
        EXPECT_EQ(SocketService::GetSocketOptionLevel(option), level);
        EXPECT_EQ(SocketService::GetLinuxSocketOptionName(option), systemName);
        // As a time or, in its first part, as a number.
        const timeval value{3, 500000};
        timeval read{};
        unsigned int length = sizeof read;
        EXPECT_EQ(socket->SetSockOpt(option, &value, sizeof value), level == -1 ? -1 : 0);
        EXPECT_EQ(socket->GetSockOpt(option, &read, &length), level == -1 ? -1 : 0);
        const bool isTime = option == Option::ReceiveTimeout || option == Option::SendTimeout;
        EXPECT_EQ(std::tuple(read.tv_sec != 0, read.tv_usec != 0, length),
                  std::tuple(level != -1, isTime, sizeof read));
    }

    const std::tuple<int (ISocketService::*)(int), int (ISocketService::*)(int&), int> keepAlive[] = {
        {&ISocketService::SetOptionKeepAliveIdleTime, &ISocketService::GetOptionKeepAliveIdleTime, TCP_KEEPIDLE},
        {&ISocketService::SetOptionKeepAliveProbeInterval, &ISocketService::GetOptionKeepAliveProbeInterval,
         TCP_KEEPINTVL},
        {&ISocketService::SetOptionKeepAliveProbeCount, &ISocketService::GetOptionKeepAliveProbeCount, TCP_KEEPCNT}};
    for (const auto& [set, get, systemName] : keepAlive) {
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ((*socket.*set)(7), 0);
        getsockopt(socket->GetSocketDescriptor(), IPPROTO_TCP, systemName, &value, &length);
        EXPECT_EQ(value, 7);
        // Whatever it is, a getter tells the result of the query.
        EXPECT_EQ((*socket.*get)(value), 0);
        EXPECT_EQ(value, 0);
    }
}

TEST_F(SocketTest, BadArgumentsAreRefused) {
    constexpr char noType[] = "VeException: GetPosixSocketType: Could not determine socket type, invalid value.";
    for (const auto& [type, domain, outcome] :
         {std::tuple(9, 0, noDomain), {1, 2, noDomain}, {1, 4, noDomain}, {0, 1, noType}, {3, 1, noType}}) {
        const Operation make = [&, type = static_cast<Type>(type), domain = static_cast<Domain>(domain)] {
            Make(type, domain);
        };
        EXPECT_TRUE(ComesTo(make, outcome));
    }
    // Any other mode blocks.
    EXPECT_TRUE(Blocks(*Make(Type::Stream, Domain::Ipv4, static_cast<Blocking>(3))));
    const Socket socket = Make(Type::Datagram, Domain::Ipv4, Blocking::NonBlocking);
    EXPECT_FALSE(Blocks(*socket));
    for (int port : {65536, -1}) {
        EXPECT_EQ(socket->Bind(serverAddress, port), Number(Error::Inval));
        EXPECT_EQ(socket->Connect(serverAddress, port), Number(Error::Inval));
        EXPECT_EQ(SendTo(*socket, port), Result(-1, Error::Inval));
    }
    for (const int mode : {0, 5}) {
        EXPECT_EQ(Poll(*socket, static_cast<PollMode>(mode), withoutLimit), Result(-1, Error::Inval));
    }
    bool enable = true;
    unsigned int value = 7;
    for (const int refused : {socket->SetOptionLinger(true, 1), socket->GetOptionLinger(enable, value),
                              socket->SetOptionUserTimeout(1), socket->GetOptionUserTimeout(value)}) {
        EXPECT_EQ(refused, -1);
    }
    EXPECT_EQ(std::tuple(enable, value), std::tuple(true, 7U));
}

TEST_F(SocketTest, WithoutADescriptorNothingWaitsForever) {
    // Though the first of them are within the first places of an fd_set, the system looks at no place of these.
    for (const int number : {500, 1023, -111, INT_MAX}) {
        const Socket adopted = Adopt(number);
        EXPECT_TRUE(ComesTo([&] { adopted->Connect(name); }, noDomain));
        EXPECT_EQ(Select(*adopted, SelectMode::Readable, withoutLimit), unclassified) << number;
        EXPECT_EQ(Poll(*adopted, PollMode::Readable, withoutLimit), closed) << number;
    }
    const Socket none = Own(factory->CreateSocket(nullptr));
    EXPECT_EQ(Select(*none, SelectMode::TimeoutOnly, withoutLimit), unclassified);
    EXPECT_EQ(Select(*none, SelectMode::TimeoutOnly, 0), nothing);
    EXPECT_EQ(Poll(*none, PollMode::Readable, 0), timedOut);
}

TEST_F(SocketTest, SelectHasAPlaceForEveryDescriptor) {
    // An fd_set has 1024 places.
    const Interposition exists("fcntl", [](const Arguments& /*arguments*/) { return 0; });
    const Interposition call("select", [](const Arguments& arguments) {
        EXPECT_EQ(arguments[0], 1025);
        EXPECT_EQ(Interposition::Pointer<fd_mask>(arguments[1])[1024 / NFDBITS], 1);
        return 1;
    });
    EXPECT_EQ(Select(*Adopt(1024), SelectMode::Readable), ready);
}

TEST_F(SocketTest, CloseThatOvertakesAnOperationIsReportedAsClosed) {
    for (const std::string function : {"select", "poll"}) {
        const Socket socket = Make(Type::Datagram);
        const Interposition call(function.c_str(), [&](const Arguments& arguments) {
            const std::intptr_t result = call.CallThrough(arguments);
            socket->Close();
            return result;
        });
        const auto reads = CallsOf("recv", [&] {
            EXPECT_EQ(function == "poll" ? Poll(*socket, PollMode::Writable) : Select(*socket, SelectMode::Writable),
                      closed);
        });
        // Nobody reads from a number that is free.
        EXPECT_TRUE(reads.empty());
    }
}

TEST_F(SocketTest, ClosesOnceAndIsNotCancelledThere) {
    const Socket local = Make(Type::Stream, Domain::Local);
    EXPECT_EQ(CountCallsOfTwo("getsockname", [&] { EXPECT_EQ(local->Close(), 0); }), 1);
    EXPECT_EQ(Select(*local, SelectMode::TimeoutOnly, withoutLimit), closed);
    EXPECT_EQ(Poll(*local, PollMode::Readable, INT_MAX), closed);
    const Socket socket = Make(Type::Stream);
    const Interposition call("close", [&](const Arguments& arguments) {
        // Nobody begins to use a number that is about to be free.
        EXPECT_EQ(socket->GetSocketDescriptor(), -1);
        return call.CallThrough(arguments);
    });
    EXPECT_TRUE(HasNoCancellationPoint([&] { socket->Close(); }));
}

TEST_F(SocketTest, FailuresAreReported) {
    const Socket socket = Make(Type::Stream);
    const FileDescriptor leftOpen(socket->GetSocketDescriptor());
    const Socket local = Make(Type::Stream, Domain::Local);
    const TemporaryFolder folder;
    BindTo(folder / "local", local->GetSocketDescriptor());
    const auto closeLocal = [&] { return local->Close(); };
    const auto makeNonBlocking = [this] { Make(Type::Stream, Domain::Ipv4, Blocking::NonBlocking); };
    const std::string notMade = "VeException: Could not create non-blocking socket. Error ";
    const std::string notUnlinked = "VeException: Could not unlink socket file.";
    int value = 0;
    ExpectFailures({
        {"socket", [this] { return Make(Type::Stream)->GetSocketDescriptor(); }, "-1"},
        {"socket", makeNonBlocking, notMade + "Bad file descriptor."},
        {"ioctl", makeNonBlocking, notMade + "Permission denied."},
        {"getsockname", closeLocal, "VeException: Could not query if local domain is bound to a file."},
        {"unlink", closeLocal, notUnlinked},
        {"unlink", [&] { delete local.get(); }, "ends the process: " + notUnlinked},
        // It stays open.
        {"select", [&] { return Select(*local, SelectMode::Writable).second; }, "10004", 0, EINTR},
        {"poll", [&] { return Poll(*local, PollMode::Readable).second; }, "10004", 0, EINTR},
        {"bind", [&] { return local->Bind(name); }, "10055", 0, ENOBUFS},
        {"bind", [&] { return socket->Bind(serverAddress, value); }, "10055", 0, ENOBUFS},
        {"connect", [&] { return local->Connect(name); }, "10055", 0, ENOBUFS},
        {"getsockname", [&] { return socket->Bind(serverAddress, value); }, "10055", 0, ENOBUFS},
        {"connect", [&] { return socket->Connect(serverAddress, 1); }, "10055", 0, ENOBUFS},
        {"listen", [&] { return socket->Listen(1); }, "10055", 0, ENOBUFS},
        {"setsockopt", [&] { return socket->SetOptionKeepAliveIdleTime(1); }, "10055", 0, ENOBUFS},
        {"getsockopt", [&] { return socket->GetOptionKeepAliveIdleTime(value); }, "10055", 0, ENOBUFS},
        {"ioctl", [&] { return socket->SetOptionBlocking(true); }, "10055", 0, ENOBUFS},
        {"shutdown", [&] { return socket->Shutdown(); }, "10055", 0, ENOBUFS},
        {"close", [&] { return socket->Close(); }, "10055", 0, ENOBUFS},
    });
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
