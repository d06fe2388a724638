#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

/// A folder that is removed at the end, with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder() {
        if (mkdtemp(path.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "mkdtemp");
        }
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path); }

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// Returns the path of a file in it.
    std::string operator/(const std::string& name) const { return path + "/" + name; }

private:
    std::string path = "/tmp/kel-test-XXXXXX";
};
