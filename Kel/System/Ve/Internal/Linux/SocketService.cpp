#include <Kel/System/Ve/Internal/Linux/SocketService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/FileDescriptor.h>
#include <Kel/System/Ve/Internal/Linux/SystemCall.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace Kel::System::Ve::Internal {

void SocketServiceBase::Startup() { Linux::SocketService::Startup(); }

}  // namespace Kel::System::Ve::Internal

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

namespace {

constexpr char serviceName[] = "SocketService";
constexpr unsigned int withoutLimit = 0xFFFFFFFF;

bool IsPort(int port) { return static_cast<unsigned int>(port) < 65536; }

sockaddr_in Ipv4Address(int family, unsigned int ipAddress, int port) {
    sockaddr_in address{};
    address.sin_family = static_cast<sa_family_t>(family);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = ipAddress;
    return address;
}

sockaddr_un LocalAddress(int family) {
    sockaddr_un address{};
    address.sun_family = static_cast<sa_family_t>(family);
    return address;
}

// A path may fill its place to the last byte, and has no terminating null then.
BasicString PathOf(const sockaddr_un& address) {
    return {address.sun_path, strnlen(address.sun_path, sizeof address.sun_path)};
}

template <typename Address>
const sockaddr* Generic(const Address& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

template <typename Address>
sockaddr* Generic(Address& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

int Number(ISocketService::SocketError error) { return static_cast<int>(error); }

// For calls that return -1 and leave the number of an error in errno.
int Status(int result) { return result == -1 ? Number(SocketService::TranslateError(errno)) : 0; }

// The same for calls that otherwise return a count, which the kernel keeps within an int.
int Count(ssize_t result, ISocketService::SocketError& error) {
    error = result == -1 ? SocketService::TranslateError(errno) : ISocketService::SocketError::Success;
    return static_cast<int>(result);
}

int Refuse(ISocketService::SocketError reason, ISocketService::SocketError& error) {
    error = reason;
    return -1;
}

// What these getters give is the result of the query, which is 0 whenever they give anything.
template <typename Value>
int GetResultOption(ISocketService& socket, ISocketService::SocketOptionName option, Value& value) {
    unsigned int length = sizeof value;
    const int status = socket.GetSockOpt(option, &value, &length);
    if (status == 0) {
        value = 0;
    }
    return status;
}

// Numbers beyond the process's table of descriptors, which has a place for each bit of a word at least, would need a
// set of any length, and select would ignore them.
bool CanBeSelected(int descriptor) {
    return descriptor >= 0 && (descriptor < NFDBITS || fcntl(descriptor, F_GETFD) != -1);
}

// A set of one descriptor. An fd_set ends at 1024; the kernel takes a longer one.
class DescriptorSet {
public:
    explicit DescriptorSet(int descriptor) {
        const auto bit = static_cast<unsigned int>(descriptor);
        if (bit >= FD_SETSIZE) {
            many.resize(bit / bitsPerWord + 1);
            words = many.data();
        }
        words[bit / bitsPerWord] = static_cast<fd_mask>(1UL << (bit % bitsPerWord));
    }

    DescriptorSet(const DescriptorSet&) = delete;
    DescriptorSet& operator=(const DescriptorSet&) = delete;

    fd_set* Get() { return reinterpret_cast<fd_set*>(words); }

private:
    static constexpr unsigned int bitsPerWord = NFDBITS;

    std::array<fd_mask, FD_SETSIZE / bitsPerWord> few{};
    std::vector<fd_mask> many;
    fd_mask* words = few.data();
};

template <typename Address>
std::unique_ptr<ISocketService> AcceptFrom(int listener, Address& peer, ISocketService::SocketError& error) {
    socklen_t length = sizeof peer;
    FileDescriptor accepted(Count(accept4(listener, Generic(peer), &length, SOCK_CLOEXEC), error));
    if (accepted.Get() == -1) {
        return nullptr;
    }
    int descriptor = accepted.Get();
    std::unique_ptr<ISocketService> service(ServiceFactory::GetInstance()->CreateSocket(&descriptor));
    accepted.Release();
    return service;
}

}  // namespace

SocketService::SocketService(SocketType type, SocketDomain domain, SocketBlockingMode blockingMode, bool abstract)
    : ServiceObjectBase(serviceName, ServiceType::Socket, true), SocketServiceBase(type, domain), isAbstract(abstract) {
    const int posixDomain = GetPosixSocketDomain(domain);
    const int posixType = GetPosixSocketType(type);
    FileDescriptor made(socket(posixDomain, posixType | SOCK_CLOEXEC, 0));
    if (blockingMode == SocketBlockingMode::NonBlocking) {
        int nonBlocking = 1;
        CheckErrno(ioctl(made.Get(), FIONBIO, &nonBlocking), "Could not create non-blocking socket. Error {1}.");
    }
    socketDescriptor = made.Release();
}

SocketService::SocketService(void* handle)
    : ServiceObjectBase(serviceName, ServiceType::Socket, true),
      SocketServiceBase(SocketType{}, SocketDomain{}),
      socketDescriptor(handle != nullptr ? *static_cast<const int*>(handle) : -1),
      isAbstract(true) {
    if (socketDescriptor >= 0) {
        fcntl(socketDescriptor, F_SETFD, FD_CLOEXEC);
    }
}

SocketService::~SocketService() {
    const CancellationDisabled disabled;
    Close();
}

int SocketService::GetPosixSocketType(SocketType type) {
    switch (type) {
        case SocketType::Stream:
        case SocketType::Datagram:
            return static_cast<int>(type);
    }
    throw VeException("{0}: Could not determine socket type, invalid value.", __func__);
}

int SocketService::GetPosixSocketDomain(SocketDomain domain) {
    switch (domain) {
        case SocketDomain::Ipv4:
            return AF_INET;
        case SocketDomain::Local:
            return AF_UNIX;
    }
    throw VeException("{0}: Could not determine socket domain, invalid value.", __func__);
}

int SocketService::GetLinuxSocketOptionName(SocketOptionName option) {
    switch (option) {
        case SocketOptionName::TcpNoDelay:
            return TCP_NODELAY;
        case SocketOptionName::ReuseAddress:
            return SO_REUSEADDR;
        case SocketOptionName::KeepAlive:
            return SO_KEEPALIVE;
        case SocketOptionName::Broadcast:
            return SO_BROADCAST;
        case SocketOptionName::TcpUserTimeout:
            return TCP_USER_TIMEOUT;
        case SocketOptionName::TcpKeepAliveIdle:
            return TCP_KEEPIDLE;
        case SocketOptionName::TcpKeepAliveInterval:
            return TCP_KEEPINTVL;
        case SocketOptionName::TcpKeepAliveCount:
            return TCP_KEEPCNT;
        case SocketOptionName::Linger:
            return SO_LINGER;
        case SocketOptionName::ReceiveTimeout:
            return SO_RCVTIMEO;
        case SocketOptionName::SendTimeout:
            return SO_SNDTIMEO;
    }
    return -1;
}

int SocketService::GetSocketOptionLevel(SocketOptionName option) {
    switch (option) {
        case SocketOptionName::TcpNoDelay:
        case SocketOptionName::TcpKeepAliveIdle:
        case SocketOptionName::TcpKeepAliveInterval:
        case SocketOptionName::TcpKeepAliveCount:
            return IPPROTO_TCP;
        case SocketOptionName::ReuseAddress:
        case SocketOptionName::KeepAlive:
        case SocketOptionName::Broadcast:
        case SocketOptionName::ReceiveTimeout:
        case SocketOptionName::SendTimeout:
            return SOL_SOCKET;
        case SocketOptionName::TcpUserTimeout:
        case SocketOptionName::Linger:
            // Have no level, which is what refuses them.
            break;
    }
    return -1;
}

ISocketService::SocketError SocketService::TranslateError(int errorNumber) {
    switch (errorNumber) {
        case 0:
            return SocketError::Success;
        case EINTR:
            return SocketError::Intr;
        case EAGAIN:
            return SocketError::WouldBlock;
        case EINVAL:
            return SocketError::Inval;
        case EPIPE:
        case ENOTCONN:
            return SocketError::NotConn;
        case EDESTADDRREQ:
            return SocketError::DestAddrReq;
        case EMSGSIZE:
            return SocketError::MsgSize;
        case ENOPROTOOPT:
            return SocketError::NoProtoOpt;
        case EOPNOTSUPP:
            return SocketError::OpNotSupp;
        case EAFNOSUPPORT:
            return SocketError::AfNoSupport;
        case EADDRINUSE:
            return SocketError::AddrInUse;
        case EADDRNOTAVAIL:
            return SocketError::AddrNotAvail;
        case ECONNABORTED:
            return SocketError::ConnAborted;
        case ECONNRESET:
            return SocketError::ConnReset;
        case ENOBUFS:
            return SocketError::NoBufs;
        case EISCONN:
            return SocketError::IsConn;
        case ESHUTDOWN:
            return SocketError::Shutdown;
        case ETIMEDOUT:
            return SocketError::TimedOut;
        case ECONNREFUSED:
            return SocketError::ConnRefused;
        case EHOSTDOWN:
            return SocketError::HostDown;
        case EHOSTUNREACH:
            return SocketError::HostUnreach;
        case EALREADY:
            return SocketError::Already;
        case EINPROGRESS:
            return SocketError::InProgress;
        default:
            return SocketError::Unclassified;
    }
}

void SocketService::MakeAbstract(char* buffer, unsigned int size, const BasicString& name) {
    if (size > 2) {
        strncpy(buffer + 1, name.c_str(), size - 2);
    }
}

int SocketService::Bind(unsigned int ipAddress, int& port) {
    if (!IsPort(port)) {
        return Number(SocketError::Inval);
    }
    const int descriptor = socketDescriptor;
    const sockaddr_in address = Ipv4Address(GetPosixSocketDomain(socketDomain), ipAddress, port);
    if (const int status = Status(bind(descriptor, Generic(address), sizeof address)); status != 0) {
        return status;
    }
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    if (const int status = Status(getsockname(descriptor, Generic(bound), &length)); status != 0) {
        return status;
    }
    port = ntohs(bound.sin_port);
    return 0;
}

int SocketService::Bind(const BasicString& name) {
    sockaddr_un address = LocalAddress(GetPosixSocketDomain(socketDomain));
    MakeAbstract(address.sun_path, sizeof address.sun_path, name);
    // With its full length: the nulls behind the name are part of it.
    return Status(bind(socketDescriptor, Generic(address), sizeof address));
}

ISocketService* SocketService::Accept(unsigned int& ipAddress, int& port, SocketError& error) {
    sockaddr_in peer{};
    std::unique_ptr<ISocketService> service = AcceptFrom(socketDescriptor, peer, error);
    if (service) {
        ipAddress = peer.sin_addr.s_addr;
        port = ntohs(peer.sin_port);
    }
    return service.release();
}

ISocketService* SocketService::Accept(BasicString& name, SocketError& error) {
    sockaddr_un peer{};
    std::unique_ptr<ISocketService> service = AcceptFrom(socketDescriptor, peer, error);
    if (service) {
        name = PathOf(peer);
    }
    return service.release();
}

int SocketService::Connect(unsigned int ipAddress, int port) {
    if (!IsPort(port)) {
        return Number(SocketError::Inval);
    }
    const sockaddr_in address = Ipv4Address(GetPosixSocketDomain(socketDomain), ipAddress, port);
    return Status(connect(socketDescriptor, Generic(address), sizeof address));
}

int SocketService::Connect(const BasicString& name) {
    sockaddr_un address = LocalAddress(GetPosixSocketDomain(socketDomain));
    if (isAbstract) {
        MakeAbstract(address.sun_path, sizeof address.sun_path, name);
    } else {
        strncpy(address.sun_path, name.c_str(), sizeof address.sun_path - 1);
    }
    return Status(connect(socketDescriptor, Generic(address), sizeof address));
}

int SocketService::Listen(int backlog) { return Status(listen(socketDescriptor, backlog)); }

int SocketService::SetSockOpt(SocketOptionName option, const void* value, unsigned int length) {
    const int level = GetSocketOptionLevel(option);
    const int name = GetLinuxSocketOptionName(option);
    if (level == -1 || name == -1) {
        return -1;
    }
    return Status(setsockopt(socketDescriptor, level, name, value, length));
}

int SocketService::GetSockOpt(SocketOptionName option, void* value, unsigned int* length) {
    const int level = GetSocketOptionLevel(option);
    const int name = GetLinuxSocketOptionName(option);
    if (level == -1 || name == -1) {
        return -1;
    }
    socklen_t room = *length;
    return Status(getsockopt(socketDescriptor, level, name, value, &room));
}

int SocketService::Select(SelectMode mode, unsigned int timeoutMicroseconds, SocketError& error) {
    // Before isClosed, which Close sets before it takes the descriptor away.
    const int descriptor = socketDescriptor;
    if (isClosed) {
        return Refuse(SocketError::NotSock, error);
    }

    timeval limit{static_cast<time_t>(timeoutMicroseconds / 1000000),
                  static_cast<suseconds_t>(timeoutMicroseconds % 1000000)};
    timeval* const timeout = timeoutMicroseconds == withoutLimit ? nullptr : &limit;
    const bool reads = mode == SelectMode::Readable || mode == SelectMode::Acceptable;
    const bool writes = mode == SelectMode::Writable || mode == SelectMode::Connected;
    int result = 0;
    if (reads || writes) {
        if (!CanBeSelected(descriptor)) {
            return Refuse(TranslateError(EBADF), error);
        }
        DescriptorSet set(descriptor);
        result = Count(
            select(descriptor + 1, reads ? set.Get() : nullptr, writes ? set.Get() : nullptr, nullptr, timeout), error);
    } else {
        // Without a descriptor nothing would ever end a wait without limit.
        if (descriptor < 0 && timeout == nullptr) {
            return Refuse(TranslateError(EBADF), error);
        }
        result = Count(select(0, nullptr, nullptr, nullptr, timeout), error);
    }
    return isClosed ? Refuse(SocketError::NotSock, error) : result;
}

int SocketService::Poll(PollMode mode, unsigned int timeoutMilliseconds, SocketError& error) {
    error = SocketError::Success;
    pollfd polled{};
    switch (mode) {
        case PollMode::Readable:
        case PollMode::Acceptable:
            polled.events = POLLIN | POLLRDBAND;
            break;
        case PollMode::Writable:
        case PollMode::Connected:
            polled.events = POLLOUT;
            break;
        default:
            return Refuse(SocketError::Inval, error);
    }
    // Before isClosed, which Close sets before it takes the descriptor away.
    polled.fd = socketDescriptor;
    const int timeout = static_cast<int>(timeoutMilliseconds);
    // Without a descriptor nothing would ever end a wait without limit.
    if (isClosed || (timeout < 0 && polled.fd < 0)) {
        return Refuse(SocketError::NotSock, error);
    }

    const int count = poll(&polled, 1, timeout);
    int result = count == 0 ? 0 : -1;
    if (count == 0) {
        error = SocketError::TimedOut;
    } else if (count < 0) {
        error = count == -1 ? TranslateError(errno) : SocketError::Unclassified;
    } else {
        error = Judge(polled);
        const bool tellsReadiness =
            error == SocketError::Success || error == SocketError::ConnReset || error == SocketError::Shutdown;
        result = tellsReadiness ? 1 : -1;
    }
    return isClosed ? Refuse(SocketError::NotSock, error) : result;
}

ISocketService::SocketError SocketService::Judge(const pollfd& polled) const {
    const int events = polled.revents;
    switch (events) {
        case POLLIN:
        case POLLRDNORM:
        case POLLRDBAND:
        case POLLOUT:
        case POLLWRNORM:
        case POLLWRBAND:
            if (isShutdown) {
                return SocketError::Shutdown;
            }
            return CheckConnectionReset(polled.fd) ? SocketError::ConnReset : SocketError::Success;
        case POLLIN | POLLHUP:
            return isShutdown ? SocketError::Shutdown : SocketError::ConnReset;
        case 0:
            return SocketError::Unclassified;
        default:
            break;
    }
    // The first of these that is set tells.
    const struct {
        int event;
        SocketError error;
    } troubles[] = {{POLLHUP, SocketError::ConnReset},
                    {POLLNVAL, SocketError::NotSock},
                    {POLLPRI | POLLERR, SocketError::Unclassified},
                    {POLLRDHUP, SocketError::ConnReset}};
    for (const auto& trouble : troubles) {
        if ((events & trouble.event) != 0) {
            return trouble.error;
        }
    }
    return SocketError::VerNotSupported;
}

bool SocketService::CheckConnectionReset(int descriptor) const {
    char byte = 0;
    // Not after a Close: the number may be another file's by now.
    return !isClosed && recv(descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

int SocketService::Close() {
    const int descriptor = socketDescriptor;
    // Of several threads one closes: a second time would close whatever has got the number since.
    if (descriptor < 0 || isClosing.exchange(true)) {
        return 0;
    }
    if (socketDomain == SocketDomain::Local) {
        try {
            Unlink();
        } catch (...) {
            isClosing = false;
            throw;
        }
    }
    isClosed = true;
    // Before the number becomes free, so that no operation begun later uses it.
    socketDescriptor = -1;
    return Status(CloseDescriptor(descriptor));
}

void SocketService::Unlink() {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    if (getsockname(socketDescriptor, Generic(address), &length) == -1) {
        throw VeException("Could not query if local domain is bound to a file.");
    }
    if (address.sun_family != AF_UNIX) {
        return;
    }
    // A path may fill its place to the last byte. Nothing is allocated: this is part of being deleted.
    char path[sizeof address.sun_path + 1] = "";
    std::memcpy(path, address.sun_path, sizeof address.sun_path);
    // Abstract names begin with a null, and so does the place of a name when there is none.
    if (path[0] != '\0' && unlink(path) == -1) {
        throw VeException("Could not unlink socket file.");
    }
}

int SocketService::Shutdown() { return Shutdown(ShutdownMode::Both); }

int SocketService::Shutdown(ShutdownMode mode) {
    isShutdown = true;
    return Status(shutdown(socketDescriptor, static_cast<int>(mode)));
}

int SocketService::Send(const void* data, unsigned int length, SocketError& error) {
    return Count(send(socketDescriptor, data, length, MSG_NOSIGNAL), error);
}

int SocketService::SendTo(const void* data, unsigned int length, SocketError& error, unsigned int ipAddress, int port) {
    if (!IsPort(port)) {
        return Refuse(SocketError::Inval, error);
    }
    const sockaddr_in address = Ipv4Address(GetPosixSocketDomain(socketDomain), ipAddress, port);
    return Count(sendto(socketDescriptor, data, length, MSG_NOSIGNAL, Generic(address), sizeof address), error);
}

int SocketService::Recv(void* buffer, unsigned int length, SocketError& error) {
    return Count(recv(socketDescriptor, buffer, length, MSG_NOSIGNAL), error);
}

int SocketService::RecvFrom(void* buffer, unsigned int length, SocketError& error, unsigned int& ipAddress, int& port) {
    sockaddr_in sender{};
    socklen_t senderLength = sizeof sender;
    const int count =
        Count(recvfrom(socketDescriptor, buffer, length, MSG_NOSIGNAL, Generic(sender), &senderLength), error);
    if (count != -1) {
        ipAddress = sender.sin_addr.s_addr;
        port = ntohs(sender.sin_port);
    }
    return count;
}

int SocketService::SetOptionBlocking(bool blocking) {
    int nonBlocking = blocking ? 0 : 1;
    return Status(ioctl(socketDescriptor, FIONBIO, &nonBlocking));
}

int SocketService::SetOptionLinger(bool enable, unsigned int seconds) {
    const linger value{enable ? 1 : 0, static_cast<int>(seconds)};
    return SetSockOpt(SocketOptionName::Linger, &value, sizeof value);
}

int SocketService::GetOptionLinger(bool& enable, unsigned int& seconds) {
    linger value{};
    unsigned int length = sizeof value;
    const int status = GetSockOpt(SocketOptionName::Linger, &value, &length);
    if (status == 0) {
        enable = value.l_onoff == 1;
        seconds = static_cast<unsigned int>(value.l_linger);
    }
    return status;
}

int SocketService::SetOptionUserTimeout(unsigned int value) {
    return SetSockOpt(SocketOptionName::TcpUserTimeout, &value, sizeof value);
}

int SocketService::GetOptionUserTimeout(unsigned int& value) {
    return GetResultOption(*this, SocketOptionName::TcpUserTimeout, value);
}

int SocketService::SetOptionKeepAliveIdleTime(int value) {
    return SetSockOpt(SocketOptionName::TcpKeepAliveIdle, &value, sizeof value);
}

int SocketService::GetOptionKeepAliveIdleTime(int& value) {
    return GetResultOption(*this, SocketOptionName::TcpKeepAliveIdle, value);
}

int SocketService::SetOptionKeepAliveProbeInterval(int value) {
    return SetSockOpt(SocketOptionName::TcpKeepAliveInterval, &value, sizeof value);
}

int SocketService::GetOptionKeepAliveProbeInterval(int& value) {
    return GetResultOption(*this, SocketOptionName::TcpKeepAliveInterval, value);
}

int SocketService::SetOptionKeepAliveProbeCount(int value) {
    return SetSockOpt(SocketOptionName::TcpKeepAliveCount, &value, sizeof value);
}

int SocketService::GetOptionKeepAliveProbeCount(int& value) {
    return GetResultOption(*this, SocketOptionName::TcpKeepAliveCount, value);
}

}  // namespace Kel::System::Ve::Internal::Linux
