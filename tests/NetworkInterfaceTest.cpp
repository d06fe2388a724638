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

TEST_F(NetworkInterfaceTest, TellsTheAddressesOfAnInterface) {
    BasicString error;
    const auto loopback = Own(factory->CreateNetworkInterfaceInfo("lo", error));
    ASSERT_TRUE(loopback) << error;
    EXPECT_EQ(TextOf(*loopback), "lo 127.0.0.1 255.0.0.0 00:00:00:00:00:00");
    EXPECT_EQ(static_cast<int>(loopback->GetServiceType()), 18);
    EXPECT_EQ(factory->CreateNetworkInterfaceInfo("kel-none", error), nullptr);
    EXPECT_EQ(error, "Network interface 'kel-none' could not be found. ");
}

TEST_F(NetworkInterfaceTest, AsksByTheFirst15CharactersOfTheName) {
    const Interposition call("ioctl", [](const Interposition::Arguments& arguments) {
        EXPECT_EQ(fcntl(static_cast<int>(arguments[0]), F_GETFD), FD_CLOEXEC);
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the arguments are machine words.
        auto& request = *reinterpret_cast<ifreq*>(arguments[2]);
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

TEST_F(NetworkInterfaceTest, FailuresAreReportedAndLeaveWhatIsKnown) {
    NetworkInterfaceInfo info;
    ASSERT_TRUE(NetworkInterfaceInfo::TryCreate("lo", info));
    const std::string known = TextOf(info);
    const auto read = [&] {
        BasicString error = "old";
        return info.Read(error) ? "succeeds" : std::string(error);
    };
    ExpectFailures({
        {"socket", read, "no socket"},
        {"ioctl", read, "Network interface 'lo' could not be found. "},
        {"ioctl", read, "ioctl(SIOCGIFNETMASK)", 1},
        {"ioctl", read, "ioctl(SIOCGIFHWADDR)", 2},
        {"ioctl", [] { return NetworkInterfaceInfo::Create("lo"); }, "null"},
    });
    EXPECT_EQ(TextOf(info), known);
}

}  // namespace
