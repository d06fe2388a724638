// Tells what this machine permits a real-time service.

#include "Checks.h"
#include "Machine.h"
#include "Program.h"

#include <iomanip>
#include <iostream>

using Kel::System::Ve::Internal::ServiceFactory;

namespace {

using State = Finding::State;

const char usage[] =
    "usage: ve-rtcheck [--json]\n"
    "\n"
    "Tries what a real-time service needs of this machine, as the user who runs it, and says for each what works,\n"
    "what fails or suffers without it, and the line that grants it. What cannot be tried is read from the kernel's "
    "files.\n"
    "For two seconds a thread of the lowest real-time priority keeps one processor from all normal threads.\n"
    "\n"
    "  --json  writes JSON\n"
    "  --help  writes this\n"
    "\n"
    "Exit code: 0 when nothing of it is missing, 1 when something is, 2 for a wrong command line.\n";

const char* NameOf(State state) {
    switch (state) {
        case State::Good:
            return "ok";
        case State::Weak:
            return "weak";
        case State::Missing:
            return "missing";
        case State::Unknown:
            break;
    }
    return "unknown";
}

std::vector<std::string> NamesOf(const std::vector<Row>& rows, State state) {
    std::vector<std::string> names;
    for (const Row& row : rows) {
        if (row.finding.state == state) {
            names.push_back(row.name);
        }
    }
    return names;
}

void WriteText(const std::vector<Row>& rows) {
    std::cout << MachineName() << ", " << KernelText() << "\n\n";
    for (const Row& row : rows) {
        std::cout << std::left << std::setw(9) << NameOf(row.finding.state) << std::setw(27) << row.name
                  << row.finding.text << '\n'
                  << std::string(9, ' ') << "needed by: " << row.neededBy << '\n'
                  << std::string(9, ' ') << "granted by: " << row.grantedBy << '\n';
    }
    std::cout << "\nThe group realtime is one that you make: groupadd realtime; usermod -aG realtime USER\n"
              << "How late threads are woken here, ve-jitter measures.\n";
    for (const State state : {State::Missing, State::Unknown}) {
        const std::vector<std::string> names = NamesOf(rows, state);
        std::cout << NameOf(state) << ": " << (names.empty() ? "nothing" : Joined(names, ", ")) << '\n';
    }
}

void WriteJson(const std::vector<Row>& rows) {
    std::cout << "{\"machine\": " << Quoted(MachineName()) << ", \"kernel\": " << Quoted(KernelText())
              << ", \"rows\": [";
    const char* separator = "\n";
    for (const Row& row : rows) {
        std::cout << separator << "  {\"name\": " << Quoted(row.name)
                  << ", \"state\": " << Quoted(NameOf(row.finding.state))
                  << ", \"finding\": " << Quoted(row.finding.text) << ", \"needed_by\": " << Quoted(row.neededBy)
                  << ", \"granted_by\": " << Quoted(row.grantedBy) << '}';
        separator = ",\n";
    }
    std::cout << "\n]}\n";
}

}  // namespace

int main(int argumentCount, char** arguments) {
    bool json = false;
    Options options("ve-rtcheck", usage);
    options.AddFlag("json", json);
    return Run(options, argumentCount, arguments, [&](ServiceFactory& factory) {
        const std::vector<Row> rows = CheckMachine(factory);
        (json ? WriteJson : WriteText)(rows);
        return NamesOf(rows, State::Missing).empty() ? 0 : 1;
    });
}
