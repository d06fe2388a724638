#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// A socket: IPv4 or local (Unix domain), stream or datagram.
///
/// What goes wrong at run time is told by a `SocketError`, as the result or beside it; only Bind, Connect and SendTo of
/// a socket without a domain, and Close of a local socket whose file cannot be removed, throw VeException.
///
/// IPv4 addresses are in network byte order, as in `sin_addr`; ports are in the host's. Local names that live in the
/// abstract namespace belong to no file and vanish with their socket; 106 characters of a name count.
///
/// All operations may be called from any thread. A thread that waits in Poll, Select, Send, Recv, RecvFrom or Accept is
/// woken by Shutdown; Close alone does not wake it. An operation that Close overtakes may meet a descriptor that
/// another file has got since: threads that use the socket are better ended first. Accept, Connect, Select, Poll, Send,
/// SendTo, Recv and RecvFrom wait, on a blocking socket, and are cancellation points on any; time-outs are measured on
/// the monotonic clock. The handler of a signal ends Select and Poll with Intr; the others, too, unless it was
/// installed with SA_RESTART and they have no time-out of their own. SIGPIPE is never raised.
///
/// Descriptors are closed in programs that this process starts. To hand one to a child on purpose, clear the flag of
/// the descriptor just before: `fcntl(socket->GetSocketDescriptor(), F_SETFD, 0)`.
class KEL_API ISocketService : public virtual IServiceObject {
public:
    /// Any other value is refused.
    enum class SocketType : int {
        Stream = 1,    ///< TCP, or a local stream
        Datagram = 2,  ///< UDP, or local datagrams
    };

    /// Any other value is refused, 2 as well.
    enum class SocketDomain : int {
        Ipv4 = 1,   ///< addresses and ports
        Local = 3,  ///< names on this machine
    };

    /// Any value but `NonBlocking` is as `Blocking`.
    enum class SocketBlockingMode : int {
        Blocking = 1,     ///< operations wait
        NonBlocking = 2,  ///< they fail with WouldBlock instead, and an IPv4 Connect with InProgress
    };

    /// The value that an option takes stands beside it.
    enum class SocketOptionName : int {
        TcpNoDelay = 1,              ///< int, 0 or 1
        ReuseAddress = 4,            ///< int, 0 or 1
        KeepAlive = 8,               ///< int, 0 or 1
        Broadcast = 32,              ///< int, 0 or 1
        TcpUserTimeout = 100,        ///< always refused
        TcpKeepAliveIdle = 101,      ///< int, seconds
        TcpKeepAliveInterval = 102,  ///< int, seconds
        TcpKeepAliveCount = 103,     ///< int
        Linger = 128,                ///< always refused
        ReceiveTimeout = 512,        ///< timeval; 0 waits without limit
        SendTimeout = 2048,          ///< timeval; 0 waits without limit
    };

    /// Which direction is shut down.
    enum class ShutdownMode : int {
        Receive = 0,  ///< nothing more is received
        Send = 1,     ///< the peer sees the end of the stream
        Both = 2,     ///< both
    };

    /// What Select waits for. Any other value is as `TimeoutOnly`.
    enum class SelectMode : int {
        Readable = 0,     ///< something can be received, or the peer has closed
        Writable = 1,     ///< something can be sent
        TimeoutOnly = 2,  ///< nothing: waits until the time runs out; Shutdown does not wake it
        Connected = 3,    ///< the making of a connection has ended, successfully or not: as Writable
        Acceptable = 4,   ///< a connection can be accepted: as Readable
    };

    /// What Poll waits for. Any other value fails with Inval.
    enum class PollMode : int {
        Readable = 1,    ///< something can be received, or the peer has closed
        Writable = 2,    ///< something can be sent
        Connected = 3,   ///< as Writable
        Acceptable = 4,  ///< as Readable
    };

    /// The numbers are those of Windows Sockets.
    enum class SocketError : int {
        Unclassified = -1,        ///< any other error
        Success = 0,              ///< no error
        Intr = 10004,             ///< EINTR: the handler of a signal has interrupted it
        Inval = 10022,            ///< EINVAL; also a port or a Poll mode that does not exist
        WouldBlock = 10035,       ///< EAGAIN: it would have to wait, or the time of an option ran out
        InProgress = 10036,       ///< EINPROGRESS: the connection is being made
        Already = 10037,          ///< EALREADY: a connection is being made already
        NotSock = 10038,          ///< Select or Poll of a closed socket; its other operations give Unclassified
        DestAddrReq = 10039,      ///< EDESTADDRREQ
        MsgSize = 10040,          ///< EMSGSIZE: the datagram is too long
        NoProtoOpt = 10042,       ///< ENOPROTOOPT
        OpNotSupp = 10045,        ///< EOPNOTSUPP
        AfNoSupport = 10047,      ///< EAFNOSUPPORT
        AddrInUse = 10048,        ///< EADDRINUSE
        AddrNotAvail = 10049,     ///< EADDRNOTAVAIL
        ConnAborted = 10053,      ///< ECONNABORTED
        ConnReset = 10054,        ///< ECONNRESET; also: the peer has closed the connection
        NoBufs = 10055,           ///< ENOBUFS
        IsConn = 10056,           ///< EISCONN
        NotConn = 10057,          ///< ENOTCONN; also: the peer takes no more (EPIPE)
        Shutdown = 10058,         ///< ESHUTDOWN; also: shut down by this side
        TimedOut = 10060,         ///< ETIMEDOUT; also: the time of a Poll ran out
        ConnRefused = 10061,      ///< ECONNREFUSED
        HostDown = 10064,         ///< EHOSTDOWN
        HostUnreach = 10065,      ///< EHOSTUNREACH
        VerNotSupported = 10092,  ///< Poll saw a set of events that it does not know
    };

    // Results of type int are 0 or the number of a `SocketError`, unless said otherwise.

    /// Binds to an IPv4 address and port (bind). Port 0 lets the system choose; `port` becomes the one that was bound.
    virtual int Bind(unsigned int ipAddress, int& port) = 0;

    /// Binds a local socket to a name in the abstract namespace (bind).
    virtual int Bind(const BasicString& name) = 0;

    /// Waits for a connection and returns its socket, which the caller owns, with address and port of the peer
    /// (accept). Null on failure. The new socket blocks, and has no domain: it cannot be bound or connected again.
    virtual ISocketService* Accept(unsigned int& ipAddress, int& port, SocketError& error) = 0;

    /// The same for a local socket; `name` is the path of the peer, empty when it has none or an abstract name.
    virtual ISocketService* Accept(BasicString& name, SocketError& error) = 0;

    /// Connects to an IPv4 address and port (connect). On a non-blocking socket it returns InProgress. Select tells
    /// when the attempt has ended, and Connect, called once more, its outcome: 0 or the reason of the failure.
    ///
    ///     int result = socket.Connect(address, port);
    ///     if (result == static_cast<int>(SocketError::InProgress) &&
    ///         socket.Select(SelectMode::Connected, 5000000, error) == 1) {
    ///         result = socket.Connect(address, port);
    ///     }
    virtual int Connect(unsigned int ipAddress, int port) = 0;

    /// Connects a local socket to a name: in the abstract namespace, or, for what the factory's
    /// CreateNonAbstractIpcSocket has made, the path of a socket file of up to 107 characters.
    virtual int Connect(const BasicString& name) = 0;

    /// Lets a bound socket accept connections (listen); about `backlog` of them may wait.
    virtual int Listen(int backlog) = 0;

    /// Sets an option to the value of that length (setsockopt). -1, too, when the option is unknown or refused.
    virtual int SetSockOpt(SocketOptionName option, const void* value, unsigned int length) = 0;

    /// Reads an option into `value`, which holds `*length` bytes (getsockopt). `*length` stays as it is. -1, too, when
    /// the option is unknown or refused.
    virtual int GetSockOpt(SocketOptionName option, void* value, unsigned int* length) = 0;

    /// Waits until the socket is ready (select). `timeoutMicroseconds` is the limit; 0 looks once, 0xFFFFFFFF waits
    /// without limit. Returns 1 when ready, 0 when the time ran out, -1 on failure.
    virtual int Select(SelectMode mode, unsigned int timeoutMicroseconds, SocketError& error) = 0;

    /// Waits until the socket is ready or broken (poll). `timeoutMilliseconds` is the limit; 0 looks once, 0x80000000
    /// and above wait without limit. Returns 1 when something has happened, and then `error` tells whether the socket
    /// is ready (Success), closed by the peer (ConnReset) or shut down by this side (Shutdown; ConnReset where the
    /// system tells of both ends only); 0 with TimedOut when the time ran out; -1 on failure. It is Success until the
    /// last byte that the peer has sent is read, but for a local stream whose peer has closed, which is ConnReset at
    /// once. A waiting datagram of length zero is taken for the peer's closing.
    virtual int Poll(PollMode mode, unsigned int timeoutMilliseconds, SocketError& error) = 0;

    /// Closes the socket. A local socket that is bound to a file removes that first; throws VeException, and stays
    /// open, when it cannot. Does nothing when closed already.
    virtual int Close() = 0;

    /// Shuts down both directions.
    virtual int Shutdown() = 0;

    /// Shuts down one direction or both (shutdown) and wakes the threads that wait for it. From then on Poll reports
    /// Shutdown where it would report ready. On an IPv4 datagram socket that is not connected it does the same, but
    /// returns NotConn.
    virtual int Shutdown(ShutdownMode mode) = 0;

    /// Sends up to `length` bytes (send). Returns how many were taken, -1 on failure.
    virtual int Send(const void* data, unsigned int length, SocketError& error) = 0;

    /// Sends a datagram to an IPv4 address and port (sendto). Returns its length, -1 on failure.
    virtual int SendTo(const void* data, unsigned int length, SocketError& error, unsigned int ipAddress, int port) = 0;

    /// Receives up to `length` bytes (recv). Returns how many; 0 when the peer has ended the stream or the datagram is
    /// empty; -1 on failure.
    virtual int Recv(void* buffer, unsigned int length, SocketError& error) = 0;

    /// The same, with address and port of the sender (recvfrom), which stay as they are on failure.
    virtual int RecvFrom(void* buffer, unsigned int length, SocketError& error, unsigned int& ipAddress, int& port) = 0;

    /// Lets operations wait (true) or fail with WouldBlock instead (false).
    virtual int SetOptionBlocking(bool blocking) = 0;

    /// @{
    /// The linger and user time-out options are refused: the result is always -1, and nothing changes.
    virtual int SetOptionLinger(bool enable, unsigned int seconds) = 0;
    virtual int GetOptionLinger(bool& enable, unsigned int& seconds) = 0;
    virtual int SetOptionUserTimeout(unsigned int value) = 0;
    virtual int GetOptionUserTimeout(unsigned int& value) = 0;
    /// @}

    /// @{
    /// How a connection on which nothing is sent is kept alive: seconds before the first probe, seconds between
    /// probes, number of probes. A getter that succeeds sets `value` to 0, whatever the system's value is; GetSockOpt
    /// reads that.
    virtual int SetOptionKeepAliveIdleTime(int value) = 0;
    virtual int GetOptionKeepAliveIdleTime(int& value) = 0;
    virtual int SetOptionKeepAliveProbeInterval(int value) = 0;
    virtual int GetOptionKeepAliveProbeInterval(int& value) = 0;
    virtual int SetOptionKeepAliveProbeCount(int value) = 0;
    virtual int GetOptionKeepAliveProbeCount(int& value) = 0;
    /// @}

    /// Returns the descriptor, a negative number when there is none. It stays the socket's own.
    virtual int GetSocketDescriptor() const = 0;
};

}  // namespace Kel::System::Ve
