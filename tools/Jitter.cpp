// Shows how late the library's timer calls its handler on this machine.

#include "Machine.h"
#include "Program.h"
#include "Recording.h"
#include "Report.h"

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <system_error>

using Kel::System::Ve::Internal::ServiceFactory;

namespace {

const char usage[] =
    "usage: ve-jitter [OPTION]...\n"
    "\n"
    "Runs a periodic timer and tells how late it calls. Ctrl-C ends it early.\n"
    "\n"
    "  --period US             period in microseconds (1000)\n"
    "  --priority N            real-time priority, 1 to 99; 0 for normal scheduling (0)\n"
    "  --processor N           the processor that it runs on, counted from 0 (any)\n"
    "  --seconds N             how long (10); at most 10 million periods\n"
    "  --lock-memory[=no]      locks all memory (mlockall), or fails\n"
    "  --latency-target[=no]   keeps processors from deep sleep (/dev/cpu_dma_latency), or fails\n"
    "  --json                  writes JSON instead of text\n"
    "  --csv FILE              writes the lateness of each call\n"
    "  --svg FILE              draws the histogram\n"
    "  --help                  writes this\n"
    "\n"
    "Without --lock-memory and --latency-target, both are done if that is permitted. The report says whether they "
    "were.\n"
    "\n"
    "The lateness of a call counts from its deadline: as many periods after the first call, which the timer makes at "
    "its\n"
    "start without a wait, as the call is in number. Were a call to come before its deadline, the first one was held "
    "up,\n"
    "and all deadlines are earlier by as much. The lateness ends when the handler reads the clock.\n"
    "\n"
    "Exit code: 0 when it has run, 1 when it could not, 2 for a wrong command line.\n";

constexpr std::uint64_t mostPeriods = 10000000;

/// A file that is opened before the run and written after it; none when it has no name.
class Output {
public:
    Output(const char* option, const std::string& fileName) : name(fileName) {
        if (!name.empty()) {
            errno = 0;
            // What is there stays until there is something to write.
            file.open(name, std::ios::app);
            if (!file) {
                const int reason = errno;
                throw UsageError(std::string(option) + " cannot write '" + name +
                                 "': " + std::generic_category().message(reason));
            }
        }
    }

    template <class Writer>
    void Write(Writer writer) {
        if (!name.empty()) {
            file.close();
            file.open(name);
            writer(file);
            file.close();
            if (!file) {
                throw std::runtime_error("'" + name + "' could not be written");
            }
        }
    }

private:
    std::string name;
    std::ofstream file;
};

}  // namespace

int main(int argumentCount, char** arguments) {
    Settings settings;
    const unsigned int processors = ProcessorCount();
    unsigned int processor = processors;  // any
    bool json = false;
    std::string csvName;
    std::string svgName;
    Options options("ve-jitter", usage);
    options.AddNumber("period", settings.periodUs, 1, 60000000);
    options.AddNumber("priority", settings.priority, 0, 99);
    options.AddNumber("processor", processor, 0, processors - 1);
    options.AddNumber("seconds", settings.seconds, 1, 1000000);
    options.AddSwitch("lock-memory", settings.wishes.lockMemory);
    options.AddSwitch("latency-target", settings.wishes.latencyTarget);
    options.AddFlag("json", json);
    options.AddText("csv", csvName);
    options.AddText("svg", svgName);
    return Run(options, argumentCount, arguments, [&](ServiceFactory& factory) {
        const std::uint64_t periods = settings.Periods();
        if (periods == 0 || periods > mostPeriods) {
            throw UsageError("--seconds " + std::to_string(settings.seconds) + " has " + std::to_string(periods) +
                             " periods: from 1 to " + std::to_string(mostPeriods) + " are possible");
        }
        if (!csvName.empty() && csvName == svgName) {
            throw UsageError("--csv and --svg both write '" + csvName + "'");
        }
        settings.processors = processor != processors ? 1U << processor : 0;
        Output csv("--csv", csvName);
        Output svg("--svg", svgName);
        const auto [lateness, neverMade, setup] = Record(factory, settings);
        if (lateness.empty()) {
            throw std::runtime_error("it was ended before the first period was over");
        }
        const Statistics statistics(lateness, neverMade, settings.periodUs);
        (json ? WriteJson : WriteText)(std::cout, settings, setup, statistics);
        csv.Write([&calls = lateness](std::ostream& out) { WriteCsv(out, calls); });
        svg.Write([&, &how = setup](std::ostream& out) { WritePicture(out, settings, how, statistics); });
        return 0;
    });
}
