#pragma once

#include <sys/types.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

/// Returns a field of what the kernel says of a thread of this process, counted as in proc(5): 3 is the state, 18 the
/// priority that it runs with.
inline std::string ThreadStat(pid_t thread, std::size_t field) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(file, line);
    // After the name in brackets comes the third field.
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    const std::vector<std::string> values{std::istream_iterator<std::string>(fields), {}};
    return values.at(field - 3);
}
