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
    std::list<Kel::BasicString> names;
    std::map<std::string, bool> areEnabled;
    for (std::string line; std::getline(input, line);) {
        lttng_session& session = sessions.emplace_back();
        session.enabled = line[0] == '1' ? 1 : 0;
        // A name of full length has no null behind it, but the path.
        line.erase(0, 2).copy(session.name, sizeof session.name);
        session.path[0] = 'p';
        names.emplace_back(std::string(session.name, strnlen(session.name, sizeof session.name)));
        areEnabled.emplace(names.back(), session.enabled != 0);
    }
    const Interposition daemon("lttng_list_sessions", [&](const Interposition::Arguments& arguments) {
        auto* const list = static_cast<lttng_session*>(std::calloc(sessions.size() + 1, sizeof(lttng_session)));
        std::copy(sessions.begin(), sessions.end(), list);
        *Interposition::Pointer<lttng_session*>(arguments[0]) = list;
        return static_cast<std::intptr_t>(sessions.size());
    });
    const auto controller = Own(Factory().CreateTraceController());
    Require(controller->ListSessions() == names, "all sessions are listed");
    bool isEnabled = false;
    const std::string thrown = Thrown([&] { isEnabled = controller->IsSessionEnabled(name); });
    Require(thrown.empty() == (areEnabled.count(name) == 1), "a session that is listed is found");
    Require(isEnabled == areEnabled[name], "the first session of that name is asked for");
});
