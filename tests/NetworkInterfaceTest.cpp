#include "support/Test.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cstring>

namespace {

using NetworkInterfaceTest = FactoryTest;

std::string TextOf(const INetworkInterfaceInfo& info) {
    return info.GetName() + " " + info.GetIpAddress() + " " + info.GetSubnetMask() + " " + info.GetMacAddress();
}

TEST_F(NetworkInterfaceTest, AsksByTheFirst15CharactersOfTheName) {
    const Interposition call("ioctl", [](const Interposition::Arguments& arguments) {
        EXPECT_EQ(fcntl(static_cast<int>(arguments[0]), F_GETFD), FD_CLOEXEC);
        auto& request = *Interposition::Pointer<ifreq>(arguments[2]);
        EXPECT_STREQ(request.ifr_name, "abcdefghijklmno");
        // An IPv4 address begins behind the port, which is the beginning of a hardware address.
        std::memcpy(request.ifr_addr.sa_data,
                    arguments[1] == SIOCGIFADDR ? "..\xC0\xA8\x0A\x01" : "\x02\x80\xFF\xFF\xF0\0", 6);
        return 0;
    });
    NetworkInterfaceInfo info;
    EXPECT_TRUE(NetworkInterfaceInfo::TryCreate("abcdefghijklmnopq", info));
    EXPECT_EQ(TextOf(info), "abcdefghijklmnopq 192.168.10.1 255.255.240.0 02:80:FF:FF:F0:00");
}

TEST_F(NetworkInterfaceTest, TellsTheAddressesOrWhyThereAreNone) {
    BasicString error = "old";
    EXPECT_EQ(static_cast<int>(Own(factory->CreateNetworkInterfaceInfo("lo", error))->GetServiceType()), 18);
    const auto tryCreate = [&](const char* name) {
        NetworkInterfaceInfo info;
        const bool isCreated = NetworkInterfaceInfo::TryCreate(name, error, info);
        return (isCreated ? "created: " : "failed: ") + error + ", " + TextOf(info);
    };
    const auto tryLoopback = [&] { return tryCreate("lo"); };
    EXPECT_EQ(tryCreate("lo"), "created: old, lo 127.0.0.1 255.0.0.0 00:00:00:00:00:00");
    EXPECT_EQ(tryCreate("kel-none-of-this"),
              "failed: Network interface 'kel-none-of-this' could not be found. , kel-none-of-this   ");
    ExpectFailures({
        {"socket", tryLoopback, "failed: no socket, lo   "},
        {"ioctl", tryLoopback, "failed: ioctl(SIOCGIFNETMASK), lo   ", 1},
        {"ioctl", tryLoopback, "failed: ioctl(SIOCGIFHWADDR), lo   ", 2},
        {"ioctl", [] { return NetworkInterfaceInfo::Create("lo"); }, "null"},
    });
}

}  // namespace
