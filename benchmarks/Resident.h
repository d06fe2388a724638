#pragma once

#include <cstddef>

/// So much memory, all of it in use, in small pages, which each process has however the system is set up.
class Resident {
public:
    explicit Resident(std::size_t bytes);
    ~Resident();
    Resident(const Resident&) = delete;
    Resident& operator=(const Resident&) = delete;

    /// Null when there are no bytes.
    char* Bytes() const { return static_cast<char*>(memory); }

private:
    std::size_t length;
    void* memory = nullptr;
};
