#include "Machine.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

namespace {

utsname Uname() {
    utsname names{};
    uname(&names);
    return names;
}

}  // namespace

std::string MachineName() { return Uname().nodename; }

std::string KernelText() {
    const utsname names = Uname();
    return std::string(names.sysname) + ' ' + names.release + ' ' + names.version + ' ' + names.machine;
}

unsigned int ProcessorCount() {
    const long most = 32;
    return static_cast<unsigned int>(std::min(most, sysconf(_SC_NPROCESSORS_CONF)));
}

std::string FirstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

std::uint64_t NumberAfter(const std::string& path, const std::string& word) {
    std::ifstream file(path);
    std::uint64_t number = 0;
    for (std::string found; file >> found;) {
        if (found == word) {
            file >> number;
            break;
        }
    }
    return number;
}

rlim_t Limit(decltype(RLIMIT_RTPRIO) resource) {
    rlimit limit{};
    getrlimit(resource, &limit);
    return limit.rlim_cur;
}

std::string Quoted(const std::string& text) {
    const char digits[] = "0123456789abcdef";
    std::string quoted = "\"";
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (code < 0x20) {
            quoted += std::string("\\u00") + digits[code / 16] + digits[code % 16];
        } else {
            if (character == '"' || character == '\\') {
                quoted += '\\';
            }
            quoted += character;
        }
    }
    return quoted + '"';
}
