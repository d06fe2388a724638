#include "support/Test.h"

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
    // Its reply is what the query of the mask has left in its place: two bytes of port, then the mask.
    const FailingCall reply("ioctl", 0, 0, 2);
    EXPECT_TRUE(NetworkInterfaceInfo::TryCreate("lo", info));
    EXPECT_EQ(info.GetMacAddress(), "00:00:FF:00:00:00");
}

TEST_F(NetworkInterfaceTest, FailuresAreToldInTheErrorString) {
    const BasicString longName(40, 'x');
    const struct {
        BasicString name;
        const char* failingCall;
        int skip;
        BasicString error;
    } table[] = {{"kel-none", nullptr, 0, "Network interface 'kel-none' could not be found. "},
                 {longName, nullptr, 0, "Network interface '" + longName + "' could not be found. "},
                 {"lo", "socket", 0, "no socket"},
                 {"lo", "ioctl", 0, "Network interface 'lo' could not be found. "},
                 {"lo", "ioctl", 1, "ioctl(SIOCGIFNETMASK)"},
                 {"lo", "ioctl", 2, "ioctl(SIOCGIFHWADDR)"}};
    for (const auto& row : table) {
        const auto call =
            row.failingCall != nullptr ? std::make_unique<FailingCall>(row.failingCall, -1, EPERM, row.skip) : nullptr;
        BasicString error = "old";
        NetworkInterfaceInfo info;
        EXPECT_FALSE(NetworkInterfaceInfo::TryCreate(row.name, error, info));
        EXPECT_EQ(error, row.error);
        EXPECT_EQ(info.GetIpAddress() + info.GetSubnetMask() + info.GetMacAddress(), "");
    }
    BasicString error;
    EXPECT_EQ(factory->CreateNetworkInterfaceInfo("kel-none", error), nullptr);
    EXPECT_EQ(error, table[0].error);
}

}  // namespace
