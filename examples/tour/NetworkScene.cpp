#include "Scenes.h"

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/INetworkInterfaceInfo.h>

#include <net/if.h>

#include <memory>
#include <string>

using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Internal::ServiceFactory;

void ShowNetworkInterfaces(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Network interfaces: which addresses this machine has");
    const std::unique_ptr<struct if_nameindex, void (*)(struct if_nameindex*)> all(if_nameindex(), &if_freenameindex);
    bool hasLoopback = false;
    for (const auto* entry = all.get(); entry != nullptr && entry->if_name != nullptr; ++entry) {
        Kel::BasicString error;
        const auto info = Own(factory.CreateNetworkInterfaceInfo(entry->if_name, error));
        if (info) {
            narrator.Say(info->GetName() + ": address " + info->GetIpAddress() + ", mask " + info->GetSubnetMask() +
                         ", hardware address " + info->GetMacAddress());
            hasLoopback = hasLoopback || info->GetIpAddress() == "127.0.0.1";
        } else {
            narrator.Say(std::string(entry->if_name) + ": no IPv4 address. (" + error + ")");
        }
    }
    narrator.Check(hasLoopback, "one of them is the loopback interface");
    Kel::BasicString error;
    const auto none = Own(factory.CreateNetworkInterfaceInfo("kel-none", error));
    narrator.Check(!none && !error.empty(), "of one that does not exist it is said: " + error);
}
