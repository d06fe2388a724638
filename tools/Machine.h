#pragma once

#include <sys/resource.h>

#include <cstdint>
#include <sstream>
#include <string>

/// The machine's name.
std::string MachineName();

/// The kernel with its release, version and machine, as `uname -srvm` writes it.
std::string KernelText();

/// The processors that a service can be bound to: those of the machine, at most 32.
unsigned int ProcessorCount();

/// The first line of a file; empty when it cannot be read.
std::string FirstLine(const std::string& path);

/// The first number that follows this word in a file; 0 when there is none.
std::uint64_t NumberAfter(const std::string& path, const std::string& word);

/// The soft limit of this process.
rlim_t Limit(decltype(RLIMIT_RTPRIO) resource);

/// The elements in a row.
template <class Elements>
std::string Joined(const Elements& elements, const char* separator) {
    std::ostringstream text;
    const char* before = "";
    for (const auto& element : elements) {
        text << before << element;
        before = separator;
    }
    return text.str();
}

/// A text as JSON writes it, with its quotes.
std::string Quoted(const std::string& text);
