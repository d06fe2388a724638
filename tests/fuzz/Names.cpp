// Names of local sockets: what lies between the first byte and the last counts, of at most 106.

#include "Fuzz.h"

#include <Kel/System/Ve/Internal/Linux/SocketService.h>

#include <cstring>

using Service = Kel::System::Ve::Internal::Linux::SocketService;

static auto MakeSocket() {
    return Own(Factory().CreateSocket(Service::SocketType::Datagram, Service::SocketDomain::Local, {}));
}

// The first line is the name that a socket is bound to, the second one that another connects to.
static const Target target("Names", [](std::istream& input) {
    std::string name;
    std::string other;
    std::getline(std::getline(input, name), other);
    const auto bound = MakeSocket();
    if (bound->Bind(name) == 0) {
        // A null ends a name.
        const bool isSame = std::strncmp(name.c_str(), other.c_str(), 106) == 0;
        Require((MakeSocket()->Connect(other) == 0) == isSame, "a name is connected to");
    }

    std::string place(other.size() % 128, 'x');
    std::string expected = place;
    if (place.size() > 2) {
        name.resize(std::strlen(name.c_str()));
        name.resize(place.size() - 2);
        expected.replace(1, name.size(), name);
    }
    Service::MakeAbstract(place.data(), static_cast<unsigned int>(place.size()), name);
    Require(place == expected, "a name lies between the first byte and the last");
});
