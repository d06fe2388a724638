#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/SocketServiceBase.h>

#include <poll.h>

#include <atomic>

namespace Kel::System::Ve::Internal::Linux {

/// The socket service on Linux.
class KEL_API SocketService final : public SocketServiceBase {
public:
    /// Makes a socket (socket). Throws VeException when there is no such type or domain, or when it cannot be made
    /// non-blocking; one that could not be made at all is not told before it is used. `abstract` tells where the names
    /// live that a local socket connects to.
    SocketService(SocketType type, SocketDomain domain, SocketBlockingMode blockingMode, bool abstract);

    /// Takes over the descriptor (an int) that `handle` points to, from now on its owner; null or a negative number for
    /// none. The socket has no type and no domain, and its descriptor is closed in programs that this process starts.
    explicit SocketService(void* handle);

    /// Closes the socket. Ends the process when the file of a local socket cannot be removed.
    ~SocketService() override;

    int Bind(unsigned int ipAddress, int& port) override;
    int Bind(const BasicString& name) override;
    ISocketService* Accept(unsigned int& ipAddress, int& port, SocketError& error) override;
    ISocketService* Accept(BasicString& name, SocketError& error) override;
    int Connect(unsigned int ipAddress, int port) override;
    int Connect(const BasicString& name) override;
    int Listen(int backlog) override;
    int SetSockOpt(SocketOptionName option, const void* value, unsigned int length) override;
    int GetSockOpt(SocketOptionName option, void* value, unsigned int* length) override;
    int Select(SelectMode mode, unsigned int timeoutMicroseconds, SocketError& error) override;
    int Poll(PollMode mode, unsigned int timeoutMilliseconds, SocketError& error) override;
    int Close() override;
    int Shutdown() override;
    int Shutdown(ShutdownMode mode) override;
    int Send(const void* data, unsigned int length, SocketError& error) override;
    int SendTo(const void* data, unsigned int length, SocketError& error, unsigned int ipAddress, int port) override;
    int Recv(void* buffer, unsigned int length, SocketError& error) override;
    int RecvFrom(void* buffer, unsigned int length, SocketError& error, unsigned int& ipAddress, int& port) override;
    int SetOptionBlocking(bool blocking) override;
    int SetOptionLinger(bool enable, unsigned int seconds) override;
    int GetOptionLinger(bool& enable, unsigned int& seconds) override;
    int SetOptionUserTimeout(unsigned int value) override;
    int GetOptionUserTimeout(unsigned int& value) override;
    int SetOptionKeepAliveIdleTime(int value) override;
    int GetOptionKeepAliveIdleTime(int& value) override;
    int SetOptionKeepAliveProbeInterval(int value) override;
    int GetOptionKeepAliveProbeInterval(int& value) override;
    int SetOptionKeepAliveProbeCount(int value) override;
    int GetOptionKeepAliveProbeCount(int& value) override;
    int GetSocketDescriptor() const override { return socketDescriptor; }

    /// Nothing has to be prepared on Linux.
    static void Startup() {}

    /// Return the system's number for a type or domain. Throw VeException when there is none.
    static int GetPosixSocketType(SocketType type);
    static int GetPosixSocketDomain(SocketDomain domain);

    /// Return the system's number and level of an option, -1 when there is none.
    static int GetLinuxSocketOptionName(SocketOptionName option);
    static int GetSocketOptionLevel(SocketOptionName option);

    static SocketError TranslateError(int errorNumber);

    /// Writes a name behind the first of the buffer's `size` bytes, which stays as it is, and before the last. In a
    /// buffer of zeros that makes an abstract name.
    static void MakeAbstract(char* buffer, unsigned int size, const BasicString& name);

    /// Removes the file that a local socket is bound to, if it is bound to one. Throws VeException when that fails.
    void Unlink();

private:
    /// True when the peer has closed the connection in an orderly way.
    bool CheckConnectionReset(int descriptor) const;
    /// What the events that poll has reported mean.
    SocketError Judge(const pollfd& polled) const;

    // Negative when there is none.
    std::atomic<int> socketDescriptor{-1};
    bool isAbstract;
    // Held by the one Close that closes.
    std::atomic<bool> isClosing{false};
};

}  // namespace Kel::System::Ve::Internal::Linux
