#pragma once

#include <string>

/// The machine's name.
std::string MachineName();

/// The kernel with its release, version and machine, as `uname -srvm` writes it.
std::string KernelText();

/// The processors that a service can be bound to: those of the machine, at most 32.
unsigned int ProcessorCount();

/// The first line of a file; empty when it cannot be read.
std::string FirstLine(const std::string& path);

/// A text as JSON writes it, with its quotes.
std::string Quoted(const std::string& text);
