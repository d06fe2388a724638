// Tracer sessions: whatever the daemon lists, names are compared whole, and the first session of a name is it.

#include "Fuzz.h"

#include "../support/Interposition.h"

#include <lttng/lttng.h>

#include <cstdlib>
#include <cstring>
#include <list>
#include <vector>

// The first line is the name that is asked for. Each other is a session: whether it is enabled, and its name.
static const Target target("Sessions", [](std::istream& input) {
    std::string name;
    std::getline(input, name);
    std::vector<lttng_session> sessions;
    std::list<Kel::BasicString> expected;
    const lttng_session* found = nullptr;
    sessions.reserve(100);
    for (std::string line; sessions.size() < 100 && std::getline(input, line);) {
        lttng_session& session = sessions.emplace_back();
        session.enabled = line[0] == '1' ? 1 : 0;
        // A name of full length has no null behind it, but the path.
        line.erase(0, 2).copy(session.name, sizeof session.name);
        session.path[0] = 'p';
        expected.emplace_back(std::string(session.name, strnlen(session.name, sizeof session.name)));
        found = found == nullptr && expected.back() == name ? &session : found;
    }
    const Interposition daemon("lttng_list_sessions", [&](const Interposition::Arguments& arguments) {
        auto* const list = static_cast<lttng_session*>(std::calloc(sessions.size() + 1, sizeof(lttng_session)));
        std::copy(sessions.begin(), sessions.end(), list);
        *Interposition::Pointer<lttng_session*>(arguments[0]) = list;
        return static_cast<std::intptr_t>(sessions.size());
    });
    const auto controller = Kel::System::Ve::Adapters::Own(Factory().CreateTraceController());
    Require(controller->ListSessions() == expected, "all sessions are listed");
    bool isEnabled = false;
    const std::string thrown = Thrown([&] { isEnabled = controller->IsSessionEnabled(name); });
    Require(thrown.empty() == (found != nullptr), "a session that is listed is found");
    Require(isEnabled == (found != nullptr && found->enabled != 0), "the first session of that name is asked for");
});
