#include "support/Test.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/un.h>

#include <map>

namespace {

using Socket = ISocketService;
using Type = Socket::SocketType;
using Domain = Socket::SocketDomain;
using Blocking = Socket::SocketBlockingMode;
using Option = Socket::SocketOptionName;
using SelectMode = Socket::SelectMode;
using PollMode = Socket::PollMode;
using Error = Socket::SocketError;
using Result = std::pair<int, Error>;

constexpr unsigned int withoutLimit = 0xFFFFFFFF;
// Not the one that the system chooses by itself.
const unsigned int loopback = htonl(INADDR_LOOPBACK + 1);

const Result nothing(0, Error::Success);
const Result ready(1, Error::Success);
const Result peerClosed(1, Error::ConnReset);
const Result shutDown(1, Error::Shutdown);
const Result timedOut(0, Error::TimedOut);
const Result unclassified(-1, Error::Unclassified);
const Result closed(-1, Error::NotSock);
constexpr char noDomain[] = "VeException: GetPosixSocketDomain: Could not determine socket domain, invalid value.";

Result Poll(Socket& socket, PollMode mode, unsigned int timeoutMs = 20000) {
    Error error = Error::Unclassified;
    const int result = socket.Poll(mode, timeoutMs, error);
    return {result, error};
}

Result Select(Socket& socket, SelectMode mode, unsigned int timeoutUs = 20000000) {
    Error error = Error::Unclassified;
    const int result = socket.Select(mode, timeoutUs, error);
    return {result, error};
}

/// Binds to a path, which no operation of the library's does.
void BindTo(const std::string& place, int descriptor) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    place.copy(address.sun_path, sizeof address.sun_path);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
}

bool ClosesOnExec(const Socket& socket) { return fcntl(socket.GetSocketDescriptor(), F_GETFD) == FD_CLOEXEC; }
bool Blocks(const Socket& socket) { return (fcntl(socket.GetSocketDescriptor(), F_GETFL) & O_NONBLOCK) == 0; }

class SocketTest : public FactoryTest {
protected:
    auto Make(Type type, Domain domain = Domain::Ipv4, Blocking blocking = Blocking::Blocking) {
        return Own(factory->CreateSocket(type, domain, blocking));
    }

    auto Adopt(int descriptor) { return Own(factory->CreateSocket(&descriptor)); }

    const BasicString name = UniqueName("socket");
};

TEST_F(SocketTest, AcceptTellsWhoHasConnected) {
    const auto listener = Make(Type::Stream);
    const auto first = Make(Type::Stream);
    int port = 0;
    int firstPort = 0;
    unsigned int address = 0;
    int from = 0;
    BasicString peer = "old";
    Error error = Error::Unclassified;
    EXPECT_EQ(listener->Bind(loopback, port) + first->Bind(loopback, firstPort), 0);
    EXPECT_EQ(listener->Listen(2), 0);
    EXPECT_EQ(first->Connect(loopback, port), 0);
    // Closed on exec from the beginning, not only since it was taken over.
    const FailingCall call("fcntl");
    EXPECT_TRUE(ClosesOnExec(*Own(listener->Accept(address, from, error))) && ClosesOnExec(*first));
    // A connection that cannot be taken over is closed.
    EXPECT_EQ(Make(Type::Stream)->Connect(loopback, port), 0);
    const FailingAllocation allocation(0);
    EXPECT_THROW(listener->Accept(peer, error), std::bad_alloc);
    EXPECT_EQ(listener->SetOptionBlocking(false), 0);
    EXPECT_EQ(listener->Accept(address, from, error), nullptr);
    EXPECT_EQ(listener->Accept(peer, error), nullptr);
    EXPECT_EQ(std::tuple(error, address, from, peer), std::tuple(Error::WouldBlock, loopback, firstPort, "old"));
    // Such an address is no path.
    dynamic_cast<SocketService&>(*listener).Unlink();
}

TEST_F(SocketTest, SocketFileIsRemovedByWhoIsBoundToIt) {
    // 107 characters of a path count for connecting.
    const TemporaryFolder folder;
    const std::string path = folder / std::string(107 - (folder / "").size(), 'y');
    const auto adopted = Adopt(socket(AF_UNIX, SOCK_DGRAM, 0));
    BindTo(path, adopted->GetSocketDescriptor());
    const auto sender = Own(factory->CreateNonAbstractIpcSocket());
    EXPECT_TRUE(Blocks(*sender));
    EXPECT_EQ(sender->Connect(path + "z") + sender->Close() + adopted->Close(), 0);
    EXPECT_TRUE(std::filesystem::exists(path));

    // Here the path fills its place to the last byte, and has no end.
    const auto bound = Make(Type::Stream, Domain::Local);
    BindTo(path + "z", bound->GetSocketDescriptor());
    const auto listener = Make(Type::Stream, Domain::Local);
    EXPECT_EQ(listener->Bind(name), 0);
    EXPECT_EQ(CallsOf("listen", [&] { listener->Listen(9); }).at(0)[1], 9);
    EXPECT_EQ(bound->Connect(name), 0);
    BasicString peer;
    Error error{};
    Own(listener->Accept(peer, error));
    EXPECT_EQ(peer, path + "z");
    EXPECT_EQ(bound->Close(), 0);
    EXPECT_FALSE(std::filesystem::exists(path + "z"));
}

TEST_F(SocketTest, PollJudgesWhatTheSystemReports) {
    const auto socket = Make(Type::Datagram);
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
    const Interposition call("poll", [&](const auto& arguments) {
        auto& polled = *Interposition::Pointer<pollfd>(arguments[0]);
        EXPECT_EQ(polled.events, POLLIN | POLLRDBAND);
        polled.revents = static_cast<short>(reported);
        return 1;
    });
    for (const bool isShutdown : {false, true}) {
        for (const auto& [events, result, afterShutdown] : table) {
            for (const int event : events) {
                reported = event;
                EXPECT_EQ(Poll(*socket, PollMode::Readable), isShutdown ? afterShutdown : result) << event;
            }
        }
        EXPECT_EQ(CallsOf("shutdown", [&] { socket->Shutdown(); })[0][1], SHUT_RDWR);
    }
}

TEST_F(SocketTest, PollAndSelectWaitForWhatTheModeSays) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const auto client = Adopt(ends[0]);
    const auto server = Adopt(ends[1]);
    char bytes[9];
    Error error = Error::Unclassified;
    timeval limit{};
    const Interposition call("select", [&](const auto& arguments) {
        limit = *Interposition::Pointer<timeval>(arguments[4]);
        return call.CallThrough(arguments);
    });
    for (const auto& [pollMode, selectMode, isForWriting] :
         {std::tuple(PollMode::Readable, SelectMode::Readable, false),
          {PollMode::Acceptable, SelectMode::Acceptable, false},
          {PollMode::Writable, SelectMode::Writable, true},
          {PollMode::Connected, SelectMode::Connected, true}}) {
        EXPECT_EQ(Poll(*client, pollMode, 0), isForWriting ? ready : timedOut);
        EXPECT_EQ(Select(*client, selectMode, 0), isForWriting ? ready : nothing);
        EXPECT_EQ(server->Send("x", 1, error), 1);
        EXPECT_EQ(Poll(*client, pollMode), ready);
        EXPECT_EQ(Select(*client, selectMode, 1030000), ready);
        EXPECT_EQ(std::tuple(limit.tv_sec, limit.tv_usec), std::tuple(1, 30000));
        EXPECT_EQ(client->Recv(bytes, sizeof bytes, error), 1);
    }
    EXPECT_TRUE(Takes(milliseconds(30), [&] { EXPECT_EQ(Poll(*client, PollMode::Readable, 30), timedOut); }));
    // No other mode waits for the socket.
    EXPECT_TRUE(Takes(milliseconds(30), [&] { EXPECT_EQ(Select(*client, SelectMode{9}, 30000), nothing); }));

    EXPECT_EQ(client->Shutdown(Socket::ShutdownMode::Send), 0);
    EXPECT_EQ(Poll(*server, PollMode::Readable), peerClosed);
    EXPECT_EQ(server->Send("x", 1, error), 1);
    EXPECT_EQ(error, Error::Success);
    EXPECT_EQ(Poll(*client, PollMode::Readable, withoutLimit), shutDown);
    // Without SIGPIPE.
    EXPECT_EQ(client->Send("x", 1, error), -1);
    EXPECT_EQ(Make(Type::Stream)->SendTo("x", 1, error, loopback, 1), -1);
    EXPECT_EQ(error, Error::NotConn);
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
                                                  {Option{2}, -1, -1}};
    const auto socket = Make(Type::Stream);
    for (const auto& [option, level, systemName] : table) {
        EXPECT_EQ(SocketService::GetSocketOptionLevel(option), level);
        EXPECT_EQ(SocketService::GetLinuxSocketOptionName(option), systemName);
    }

    const std::tuple<int (Socket::*)(int), int (Socket::*)(int&), Option> keepAlive[] = {
        {&Socket::SetOptionKeepAliveIdleTime, &Socket::GetOptionKeepAliveIdleTime, Option::TcpKeepAliveIdle},
        {&Socket::SetOptionKeepAliveProbeInterval, &Socket::GetOptionKeepAliveProbeInterval,
         Option::TcpKeepAliveInterval},
        {&Socket::SetOptionKeepAliveProbeCount, &Socket::GetOptionKeepAliveProbeCount, Option::TcpKeepAliveCount}};
    for (const auto& [set, get, option] : keepAlive) {
        int value = 0;
        int place[2];
        unsigned int length = sizeof place;
        EXPECT_EQ((*socket.*set)(7), 0);
        EXPECT_EQ(socket->GetSockOpt(option, place, &length), 0);
        EXPECT_EQ(place[0], 7);
        // How long the value is, is not told.
        EXPECT_EQ(length, sizeof place);
        // Whatever it is, a getter tells the result of the query.
        EXPECT_EQ((*socket.*get)(value), 0);
        EXPECT_EQ(value, 0);
    }
    const timeval timeout{1, 500000};
    timeval found{};
    unsigned int length = sizeof found;
    EXPECT_EQ(socket->SetSockOpt(Option::ReceiveTimeout, &timeout, sizeof timeout), 0);
    EXPECT_EQ(socket->GetSockOpt(Option::ReceiveTimeout, &found, &length), 0);
    // User-mode emulation does not know the option of 64-bit time.
    EXPECT_TRUE((found.tv_sec == timeout.tv_sec && found.tv_usec == timeout.tv_usec) || IsEmulated());
}

TEST_F(SocketTest, BadArgumentsAreRefused) {
    EXPECT_TRUE(ComesTo([this] { Make(Type{}, Domain{2}); }, noDomain));
    EXPECT_TRUE(ComesTo([this] { Make(Type{3}); },
                        "VeException: GetPosixSocketType: Could not determine socket type, invalid value."));
    // Any other mode blocks.
    EXPECT_TRUE(Blocks(*Make(Type::Stream, Domain::Ipv4, Blocking{3})));
    const auto socket = Make(Type::Datagram, Domain::Ipv4, Blocking::NonBlocking);
    EXPECT_FALSE(Blocks(*socket));
    for (int port : {65536, -1}) {
        EXPECT_EQ(socket->Bind(loopback, port), static_cast<int>(Error::Inval));
        EXPECT_EQ(socket->Connect(loopback, port), static_cast<int>(Error::Inval));
        Error error = Error::Success;
        EXPECT_EQ(socket->SendTo("x", 1, error, loopback, port), -1);
        EXPECT_EQ(error, Error::Inval);
    }
    EXPECT_EQ(Poll(*socket, PollMode{5}, withoutLimit), Result(-1, Error::Inval));
    bool enable = true;
    unsigned int value = 7;
    EXPECT_EQ(socket->SetOptionLinger(true, 1) + socket->GetOptionLinger(enable, value), -2);
    EXPECT_EQ(socket->SetOptionUserTimeout(1) + socket->GetOptionUserTimeout(value), -2);
    EXPECT_EQ(std::tuple(enable, value), std::tuple(true, 7U));
}

TEST_F(SocketTest, OnlyADescriptorIsWaitedForWhateverItsNumber) {
    // Though the first of them are within the first places of an fd_set, the system looks at no place of these.
    for (const int number : {500, 1023, -111, 0x7FFFFFFF}) {
        const auto adopted = Adopt(number);
        EXPECT_TRUE(ComesTo([&] { adopted->Connect(name); }, noDomain));
        EXPECT_EQ(Select(*adopted, SelectMode::Readable, withoutLimit), unclassified) << number;
        EXPECT_EQ(Poll(*adopted, PollMode::Readable, withoutLimit), closed) << number;
    }
    const auto none = Own(factory->CreateSocket(nullptr));
    EXPECT_EQ(Select(*none, SelectMode::TimeoutOnly, withoutLimit), unclassified);
    EXPECT_EQ(Select(*none, SelectMode::TimeoutOnly, 0), nothing);
    EXPECT_EQ(Poll(*none, PollMode::Readable, 0), timedOut);

    // Beyond the 1024 places of an fd_set there may be one.
    const Interposition exists("fcntl", [](const auto& /*arguments*/) { return 0; });
    const Interposition call("select", [](const auto& arguments) {
        EXPECT_EQ(arguments[0], 1025);
        EXPECT_EQ(Interposition::Pointer<fd_mask>(arguments[1])[1024 / NFDBITS], 1);
        return 1;
    });
    EXPECT_EQ(Select(*Adopt(1024), SelectMode::Readable), ready);
}

TEST_F(SocketTest, CloseThatOvertakesAnOperationIsReportedAsClosed) {
    auto socket = Make(Type::Datagram);
    const auto close = [&](const auto& /*arguments*/) {
        socket->Close();
        return 1;
    };
    const Interposition selectCall("select", close);
    const Interposition pollCall("poll", close);
    EXPECT_EQ(Select(*socket, SelectMode::Writable), closed);
    socket = Make(Type::Datagram);
    EXPECT_EQ(Poll(*socket, PollMode::Writable), closed);
}

TEST_F(SocketTest, ClosesOnceAndIsNotCancelledThere) {
    const auto socket = Make(Type::Stream, Domain::Local);
    const Interposition call("close", [&](const auto& arguments) {
        // Nobody begins to use a number that is about to be free.
        EXPECT_EQ(socket->GetSocketDescriptor(), -1);
        return call.CallThrough(arguments);
    });
    const auto close = [&] { EXPECT_EQ(socket->Close(), 0); };
    EXPECT_TRUE(HasNoCancellationPoint([&] { EXPECT_EQ(CountCallsOfTwo("getsockname", close), 1); }));
    EXPECT_EQ(Select(*socket, SelectMode::TimeoutOnly, withoutLimit), closed);
    EXPECT_EQ(Poll(*socket, PollMode::Readable, 0x7FFFFFFF), closed);
}

TEST_F(SocketTest, FailuresAreReported) {
    const auto socket = Make(Type::Stream);
    const TemporaryFolder folder;
    const auto local = Make(Type::Stream, Domain::Local);
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
        {"bind", [&] { return socket->Bind(loopback, value); }, "10055", 0, ENOBUFS},
        {"connect", [&] { return local->Connect(name); }, "10055", 0, ENOBUFS},
        {"getsockname", [&] { return socket->Bind(loopback, value); }, "10055", 0, ENOBUFS},
        {"connect", [&] { return socket->Connect(loopback, 1); }, "10055", 0, ENOBUFS},
        {"listen", [&] { return socket->Listen(1); }, "10055", 0, ENOBUFS},
        {"setsockopt", [&] { return socket->SetOptionKeepAliveIdleTime(1); }, "10055", 0, ENOBUFS},
        {"getsockopt", [&] { return socket->GetOptionKeepAliveIdleTime(value); }, "10055", 0, ENOBUFS},
        {"ioctl", [&] { return socket->SetOptionBlocking(true); }, "10055", 0, ENOBUFS},
        {"shutdown", [&] { return socket->Shutdown(); }, "10055", 0, ENOBUFS},
        {"close", [&] { return Adopt(socket->GetSocketDescriptor())->Close(); }, "10055", 0, ENOBUFS},
    });
}

TEST(SocketErrorTest, SystemErrorsHaveWindowsNumbers) {
    const std::map<int, int> numbers{
        {0, 0},       {4, 10004},   {11, 10035},  {22, 10022},  {32, 10057},  {89, 10039},  {90, 10040},  {92, 10042},
        {95, 10045},  {97, 10047},  {98, 10048},  {99, 10049},  {103, 10053}, {104, 10054}, {105, 10055}, {106, 10056},
        {107, 10057}, {108, 10058}, {110, 10060}, {111, 10061}, {112, 10064}, {113, 10065}, {114, 10037}, {115, 10036}};
    for (int code = -1; code < 200; ++code) {
        EXPECT_EQ(SocketService::TranslateError(code), Error{numbers.count(code) != 0 ? numbers.at(code) : -1}) << code;
    }
}

}  // namespace
