// Names of local sockets: what lies between the first byte and the last counts, of at most 106.

#include "Fuzz.h"

#include <Kel/System/Ve/Internal/Linux/SocketService.h>

using Kel::System::Ve::ISocketService;
using Kel::System::Ve::Internal::Linux::SocketService;

static auto MakeSocket() {
    return Kel::System::Ve::Adapters::Own(Factory().CreateSocket(ISocketService::SocketType::Datagram,
                                                                 ISocketService::SocketDomain::Local,
                                                                 ISocketService::SocketBlockingMode::NonBlocking));
}

// The first line is the name that a socket is bound to, the second one that another connects to.
static const Target target("Names", [](std::istream& input) {
    std::string names[2];
    std::getline(std::getline(input, names[0]), names[1]);
    // A null ends a name.
    const auto upToNull = [](const std::string& name) { return name.substr(0, name.find('\0')); };
    const auto effective = [&](const std::string& name) { return upToNull(name).substr(0, 106); };
    const auto bound = MakeSocket();
    const bool isBound = bound->Bind(names[0]) == 0;
    const bool isConnected = MakeSocket()->Connect(names[1]) == 0;
    Require(!isBound || isConnected == (effective(names[0]) == effective(names[1])), "a name is connected to");

    std::string place(names[1].size() % 128, 'x');
    std::string expected = place;
    if (place.size() > 2) {
        std::string text = upToNull(names[0]);
        text.resize(place.size() - 2);
        expected.replace(1, text.size(), text);
    }
    SocketService::MakeAbstract(place.data(), static_cast<unsigned int>(place.size()), names[0]);
    Require(place == expected, "a name lies between the first byte and the last");
});
