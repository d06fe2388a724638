#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

/// A folder that is removed at the end, with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder() : path(mkdtemp(std::string("/tmp/kel-test-XXXXXX").data())) {}
    ~TemporaryFolder() { std::filesystem::remove_all(path); }

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// Returns the path of a file in it.
    std::string operator/(const std::string& name) const { return path + "/" + name; }

    /// Makes a file in it, or one that is there anew, with this content; returns its path.
    std::string Write(const std::string& name, const std::string& content) const {
        std::ofstream(*this / name) << content;
        return *this / name;
    }

    /// Returns the content of a file in it, empty when there is none.
    std::string Read(const std::string& name) const {
        std::ifstream file(*this / name);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    const std::string path;
};
