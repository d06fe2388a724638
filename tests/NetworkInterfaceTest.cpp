#include "support/Test.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <cstring>

namespace {

using NetworkInterfaceTest = FactoryTest;

std::string TextOf(const INetworkInterfaceInfo& info) {
    return info.GetName() + " " + info.GetIpAddress() + " " + info.GetSubnetMask() + " " + info.GetMacAddress();
}

TEST_F(NetworkInterfaceTest, TellsTheAddressesOfAnInterface) {
    BasicString error = "untouched";
    const auto loopback = Own(factory->CreateNetworkInterfaceInfo("lo", error));
    ASSERT_TRUE(loopback) << error;
    EXPECT_EQ(TextOf(*loopback), "lo 127.0.0.1 255.0.0.0 00:00:00:00:00:00");
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(loopback->GetServiceName(), "NetworkInterfaceInfo");
    EXPECT_EQ(static_cast<int>(loopback->GetServiceType()), 18);
    EXPECT_EQ(TextOf(*Own(NetworkInterfaceInfo::Create("lo"))), TextOf(*loopback));
    EXPECT_EQ(factory->CreateNetworkInterfaceInfo("kel-none", error), nullptr);
    EXPECT_EQ(error, "Network interface 'kel-none' could not be found. ");
}

TEST_F(NetworkInterfaceTest, AsksByTheFirst15CharactersOfTheName) {
    const auto answer = [](const Interposition::Arguments& arguments) -> std::intptr_t {
        EXPECT_EQ(fcntl(static_cast<int>(arguments[0]), F_GETFD), FD_CLOEXEC);
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the arguments are machine words.
        auto& request = *reinterpret_cast<ifreq*>(arguments[2]);
        EXPECT_STREQ(request.ifr_name, "abcdefghijklmno");
        sockaddr_in address{};
        address.sin_addr.s_addr = htonl(arguments[1] == SIOCGIFADDR ? 0xC0A80A01 : 0xFFFFF000);
        std::memcpy(&request.ifr_addr, &address, sizeof address);
        if (arguments[1] == SIOCGIFHWADDR) {
            std::memcpy(request.ifr_hwaddr.sa_data, "\x02\x80\xFF\x0A\x7F\xC3", 6);
        }
        return 0;
    };
    const Interposition call("ioctl", answer);
    NetworkInterfaceInfo info;
    EXPECT_TRUE(NetworkInterfaceInfo::TryCreate("abcdefghijklmnopq", info));
    EXPECT_EQ(TextOf(info), "abcdefghijklmnopq 192.168.10.1 255.255.240.0 02:80:FF:0A:7F:C3");
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
        {"ioctl", [&] { return NetworkInterfaceInfo::Create("lo"); }, "null"},
    });
    EXPECT_EQ(TextOf(info), known);
}

}  // namespace
