#include "ThreadFacts.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

namespace {

std::string FirstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

}  // namespace

ThreadFacts::ThreadFacts(pid_t thread)
    : folder("/proc/self/task/" + std::to_string(thread)), name(FirstLine(folder + "/comm")) {
    const std::string stat = FirstLine(folder + "/stat");
    // After the name in brackets comes the third field.
    std::istringstream fields(stat.substr(stat.rfind(')') + 1));
    const std::vector<std::string> values{std::istream_iterator<std::string>(fields), {}};
    currentPriority = std::stoi(values.at(18 - 3));
    realTimePriority = std::stoi(values.at(40 - 3));
    policy = std::stoi(values.at(41 - 3));
    std::ifstream file(folder + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("Cpus_allowed_list:", 0) == 0) {
            processors = line.substr(line.find_first_of("0123456789"));
        }
    }
}
