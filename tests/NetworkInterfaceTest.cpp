#include "support/Test.h"

#include <fcntl.h>
#include <net/if.h>

#include <cstring>

namespace {

using NetworkInterfaceTest = FactoryTest;

TEST_F(NetworkInterfaceTest, TellsTheAddressesOrWhyThereAreNone) {
    const auto tryCreate = [](const char* name) {
        NetworkInterfaceInfo info;
        BasicString error = "old";
        const bool isCreated = NetworkInterfaceInfo::TryCreate(name, error, info);
        return (isCreated ? "created: " : "failed: ") + error + ", " + info.GetName() + " " + info.GetIpAddress() +
               " " + info.GetSubnetMask() + " " + info.GetMacAddress();
    };
    const auto tryLoopback = [&] { return tryCreate("lo"); };
    EXPECT_EQ(tryLoopback(), "created: old, lo 127.0.0.1 255.0.0.0 00:00:00:00:00:00");
    EXPECT_EQ(tryCreate("kel-none-of-this"),
              "failed: Network interface 'kel-none-of-this' could not be found. , kel-none-of-this   ");
    ExpectFailures({
        {"socket", tryLoopback, "failed: no socket, lo   "},
        {"ioctl", tryLoopback, "failed: ioctl(SIOCGIFNETMASK), lo   ", 1},
        {"ioctl", tryLoopback, "failed: ioctl(SIOCGIFHWADDR), lo   ", 2},
        {"ioctl", [] { return NetworkInterfaceInfo::Create("lo"); }, "null"},
    });
    NetworkInterfaceInfo loopback;
    EXPECT_TRUE(NetworkInterfaceInfo::TryCreate("lo", loopback));

    const Interposition call("ioctl", [](const auto& arguments) {
        EXPECT_EQ(fcntl(static_cast<int>(arguments[0]), F_GETFD), FD_CLOEXEC);
        auto& request = *Interposition::Pointer<ifreq>(arguments[2]);
        // 15 characters of a name count.
        EXPECT_STREQ(request.ifr_name, "abcdefghijklmno");
        // An IPv4 address begins behind the port, which is the beginning of a hardware address.
        std::memcpy(request.ifr_addr.sa_data, "\x02\x80\xFF\xFF\xF0\0", 6);
        return 0;
    });
    EXPECT_EQ(tryCreate("abcdefghijklmnopq"),
              "created: old, abcdefghijklmnopq 255.255.240.0 255.255.240.0 02:80:FF:FF:F0:00");
}

}  // namespace
