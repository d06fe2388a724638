// Tells what this machine permits a real-time service.

#include "Checks.h"
#include "Machine.h"
#include "Program.h"

#include <algorithm>
#include <iomanip>
#include <iostream>

using Kel::System::Ve::Internal::ServiceFactory;

namespace {

const char usage[] =
    "usage: ve-rtcheck [--json]\n"
    "\n"
    "Tries what a real-time service needs of this machine, as the user who runs it, and says for each what works,\n"
    "what fails or suffers without it, and the line that grants it.\n"
    "\n"
    "  --json  writes JSON\n"
    "  --help  writes this\n"
    "\n"
    "Exit code: 0 when a real-time service would run well, 1 when something is missing, 2 for a wrong command line.\n";

const char* NameOf(Finding::State state) {
    switch (state) {
        case Finding::State::Good:
            return "ok";
        case Finding::State::Weak:
            return "weak";
        case Finding::State::Missing:
            break;
    }
    return "missing";
}

void WriteText(const std::vector<Row>& rows, bool runsWell) {
    std::cout << MachineName() << ", " << KernelText() << "\n\n";
    for (const Row& row : rows) {
        std::cout << std::left << std::setw(9) << NameOf(row.finding.state) << std::setw(27) << row.name
                  << row.finding.text << '\n'
                  << std::string(9, ' ') << "needed by: " << row.neededBy << '\n'
                  << std::string(9, ' ') << "granted by: " << row.grantedBy << '\n';
    }
    std::cout << "\nThe group realtime is one that you make: groupadd realtime; usermod -aG realtime USER\n"
              << "A real-time service would " << (runsWell ? "" : "not ") << "run well here.\n";
}

void WriteJson(const std::vector<Row>& rows, bool runsWell) {
    std::cout << "{\"machine\": " << Quoted(MachineName()) << ", \"kernel\": " << Quoted(KernelText())
              << ", \"runs_well\": " << (runsWell ? "true" : "false") << ", \"rows\": [";
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
        const bool runsWell = std::none_of(rows.begin(), rows.end(),
                                           [](const Row& row) { return row.finding.state == Finding::State::Missing; });
        (json ? WriteJson : WriteText)(rows, runsWell);
        return runsWell ? 0 : 1;
    });
}
