#include "support/Test.h"

#include <net/if.h>

#include <cstring>

namespace {

using NetworkInterfaceTest = FactoryTest;

TEST_F(NetworkInterfaceTest, TellsTheAddressesOfAnInterface) {
    BasicString error = "untouched";
    const std::unique_ptr<INetworkInterfaceInfo> loopback(factory->CreateNetworkInterfaceInfo("lo", error));
    ASSERT_TRUE(loopback) << error;
    EXPECT_EQ(loopback->GetName() + " " + loopback->GetIpAddress() + " " + loopback->GetSubnetMask() + " " +
                  loopback->GetMacAddress(),
              "lo 127.0.0.1 255.0.0.0 00:00:00:00:00:00");
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(loopback->GetServiceName(), "NetworkInterfaceInfo");
    EXPECT_EQ(static_cast<int>(loopback->GetServiceType()), 18);
    EXPECT_TRUE(std::unique_ptr<INetworkInterfaceInfo>(NetworkInterfaceInfo::Create("lo")));
}

TEST_F(NetworkInterfaceTest, HardwareAddressHasUnsignedBytes) {
    NetworkInterfaceInfo info;
    const auto reply = [](void* request) {
        std::memcpy(static_cast<ifreq*>(request)->ifr_hwaddr.sa_data, "\x02\x80\xFF\x0A\x7F\xC3", 6);
    };
    const FailingCall call("ioctl", 0, reply, 2);
    EXPECT_TRUE(NetworkInterfaceInfo::TryCreate("lo", info));
    EXPECT_EQ(info.GetMacAddress(), "02:80:FF:0A:7F:C3");
}

TEST_F(NetworkInterfaceTest, FifteenCharactersOfANameCount) {
    NetworkInterfaceInfo info;
    std::string asked;
    const FailingCall call("ioctl", -1, [&asked](void* request) { asked = static_cast<ifreq*>(request)->ifr_name; });
    EXPECT_FALSE(NetworkInterfaceInfo::TryCreate("abcdefghijklmnopq", info));
    EXPECT_EQ(asked, "abcdefghijklmno");
    EXPECT_EQ(info.GetName(), "abcdefghijklmnopq");
}

TEST_F(NetworkInterfaceTest, MissingInterfaceIsToldInTheErrorString) {
    BasicString error = "old";
    EXPECT_EQ(factory->CreateNetworkInterfaceInfo("kel-none", error), nullptr);
    EXPECT_EQ(error, "Network interface 'kel-none' could not be found. ");
}

}  // namespace
