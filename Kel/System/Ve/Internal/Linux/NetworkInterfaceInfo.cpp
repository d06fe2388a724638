#include <Kel/System/Ve/Internal/Linux/NetworkInterfaceInfo.h>

#include <Kel/Core/FormatMessage.h>
#include <Kel/System/Ve/Internal/Linux/FileDescriptor.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

namespace Kel::System::Ve::Internal::Linux {

namespace {

constexpr auto withoutNameOfItsOwn = static_cast<ServiceType>(18);

BasicString Ipv4Text(const sockaddr& address) {
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, &address, sizeof ipv4);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof text);
    return text;
}

BasicString HardwareText(const sockaddr& address) {
    unsigned char bytes[6];
    std::memcpy(bytes, address.sa_data, sizeof bytes);
    char text[sizeof "00:00:00:00:00:00"];
    static_cast<void>(std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0], bytes[1], bytes[2],
                                    bytes[3], bytes[4], bytes[5]));
    return text;
}

}  // namespace

NetworkInterfaceInfo::NetworkInterfaceInfo() : ServiceObjectBase("NetworkInterfaceInfo", withoutNameOfItsOwn, true) {}

NetworkInterfaceInfo* NetworkInterfaceInfo::Create(const BasicString& interfaceName, BasicString& error) {
    auto info = std::make_unique<NetworkInterfaceInfo>();
    return TryCreate(interfaceName, error, *info) ? info.release() : nullptr;
}

NetworkInterfaceInfo* NetworkInterfaceInfo::Create(const BasicString& interfaceName) {
    BasicString discarded;
    return Create(interfaceName, discarded);
}

bool NetworkInterfaceInfo::TryCreate(const BasicString& interfaceName, BasicString& error, NetworkInterfaceInfo& info) {
    info.interfaceName = interfaceName;
    return info.Read(error);
}

bool NetworkInterfaceInfo::TryCreate(const BasicString& interfaceName, NetworkInterfaceInfo& info) {
    BasicString discarded;
    return TryCreate(interfaceName, discarded, info);
}

bool NetworkInterfaceInfo::Read(BasicString& error) {
    const FileDescriptor descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (descriptor.Get() == -1) {
        error = "no socket";
        return false;
    }
    ifreq request{};
    std::strncpy(request.ifr_name, interfaceName.c_str(), sizeof request.ifr_name - 1);

    if (ioctl(descriptor.Get(), SIOCGIFADDR, &request) == -1) {
        error = FormatMessage("Network interface '{}' could not be found. ", {FormatArgument(interfaceName)});
        return false;
    }
    BasicString address = Ipv4Text(request.ifr_addr);
    if (ioctl(descriptor.Get(), SIOCGIFNETMASK, &request) == -1) {
        error = "ioctl(SIOCGIFNETMASK)";
        return false;
    }
    BasicString mask = Ipv4Text(request.ifr_netmask);
    if (ioctl(descriptor.Get(), SIOCGIFHWADDR, &request) == -1) {
        error = "ioctl(SIOCGIFHWADDR)";
        return false;
    }
    macAddress = HardwareText(request.ifr_hwaddr);
    ipAddress = std::move(address);
    subnetMask = std::move(mask);
    return true;
}

}  // namespace Kel::System::Ve::Internal::Linux
