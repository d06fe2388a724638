// Sockets: names, addresses, ports and kinds of sockets, in order or not.

#include "Fuzz.h"

#include <Kel/System/Ve/Internal/Linux/SocketService.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <memory>
#include <vector>

using Kel::System::Ve::ISocketService;
using Kel::System::Ve::Internal::Linux::SocketService;
using Socket = std::unique_ptr<ISocketService>;

namespace {

constexpr int invalid = 10022;
constexpr int inUse = 10048;

Socket Make(int type, int domain, int blocking = 1) {
    return Socket(Factory().CreateSocket(ISocketService::SocketType{type}, ISocketService::SocketDomain{domain},
                                         ISocketService::SocketBlockingMode{blocking}));
}

template <typename Address>
Address AddressOf(const Socket& socket, decltype(getsockname)* query) {
    Address address{};
    socklen_t length = sizeof address;
    Require(query(socket->GetSocketDescriptor(), reinterpret_cast<sockaddr*>(&address), &length) == 0,
            "the system tells the address");
    return address;
}

void MakeAbstract(Input& input) {
    const unsigned int size = input.Number<std::uint8_t>();
    const std::string name = input.Rest();
    std::vector<char> buffer(size, 'x');
    SocketService::MakeAbstract(buffer.data(), size, name);
    std::string expected(size, 'x');
    if (size > 2) {
        std::string text = UpToNull(name);
        text.resize(size - 2);
        expected.replace(1, size - 2, text);
    }
    Require(std::string(buffer.begin(), buffer.end()) == expected, "a name lies between the first byte and the last");
}

void UseNames(Input& input) {
    const auto effective = [](const std::string& name) { return UpToNull(name).substr(0, 106); };
    const std::string first = input.Text();
    const std::string second = input.Rest();
    const bool isSame = effective(first) == effective(second);
    const Socket bound = Make(2, 3, 2);
    const int status = bound->Bind(first);
    if (status != 0) {
        Require(status == inUse, "a name that cannot be bound is another socket's");
        return;
    }
    const auto address = AddressOf<sockaddr_un>(bound, &getsockname);
    std::string place = effective(first);
    place.insert(0, 1, '\0');
    place.resize(sizeof address.sun_path);
    Require(std::string(address.sun_path, sizeof address.sun_path) == place, "106 characters of a name count");
    Require(bound->Bind(second) == invalid, "a socket is bound once");

    const int secondStatus = Make(2, 3)->Bind(second);
    Require(secondStatus == inUse || (secondStatus == 0 && !isSame), "a name is bound once");
    Require(Make(2, 3, 2)->Connect(second) == 0 || !isSame, "a bound name can be connected to");
}

void UseAddresses(Input& input) {
    const auto ipAddress = input.Number<std::uint32_t>();
    const int asked = input.Number<std::int32_t>() >> input.Number<std::uint8_t>() % 32;
    const bool isPort = asked >= 0 && asked < 65536;
    const Socket bound = Make(2, 1);
    int port = asked;
    if (bound->Bind(ipAddress, port) == 0) {
        const auto address = AddressOf<sockaddr_in>(bound, &getsockname);
        Require(isPort && address.sin_addr.s_addr == ipAddress && ntohs(address.sin_port) == port &&
                    (asked == 0 ? port != 0 : port == asked),
                "a socket is bound to its address");
    } else {
        Require(port == asked, "a port stays as it was when it could not be bound");
    }

    const Socket sender = Make(2, 1);
    // Nothing is sent: connecting a datagram socket only notes the address.
    const int connected = sender->Connect(ipAddress, asked);
    if (isPort && asked != 0 && connected == 0) {
        const auto peer = AddressOf<sockaddr_in>(sender, &getpeername);
        Require(peer.sin_addr.s_addr == (ipAddress != 0 ? ipAddress : htonl(INADDR_LOOPBACK)) &&
                    ntohs(peer.sin_port) == asked,
                "a socket is connected to its address");
    }
    if (!isPort) {
        ISocketService::SocketError error{};
        Require(bound->Bind(ipAddress, port) == invalid && connected == invalid &&
                    sender->SendTo("x", 1, error, ipAddress, asked) == -1 && static_cast<int>(error) == invalid,
                "no port is beyond 65535");
    }
}

void MakeKinds(Input& input) {
    const int type = input.Number<std::int32_t>() >> input.Number<std::uint8_t>() % 32;
    const int domain = input.Number<std::int32_t>() >> input.Number<std::uint8_t>() % 32;
    const int blocking = input.Small();
    Socket socket;
    const std::string thrown = Thrown([&] { socket = Make(type, domain, blocking); });
    Require(thrown.empty() == ((domain == 1 || domain == 3) && (type == 1 || type == 2)),
            "two types and two domains are known");
    if (!socket) {
        return;
    }
    const int number = input.Number<std::int16_t>();
    const ISocketService::SocketOptionName option{number};
    const std::string value = input.Rest();
    const int status = socket->SetSockOpt(option, value.data(), static_cast<unsigned int>(value.size()));
    std::vector<char> read(value.size());
    auto length = static_cast<unsigned int>(read.size());
    const int readStatus = socket->GetSockOpt(option, read.data(), &length);
    Require(SocketService::GetSocketOptionLevel(option) != -1 || (status == -1 && readStatus == -1),
            "other options are refused");
    Require(length == read.size(), "the length stays as it is");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    constexpr void (*parts[])(Input&) = {&MakeAbstract, &UseNames, &UseAddresses, &MakeKinds};
    parts[input.Number<std::uint8_t>() % 4](input);
    Require(Factory().GetStatistics().GetNumOfObjectsCreated() == 0, "no object is left");
    return 0;
}
