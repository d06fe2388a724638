#include "FailureWorks.h"
#include "Families.h"

#include <Kel/Core/FormatMessage.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

using Kel::System::Ve::Exceptions::VeException;

namespace {

struct PlainError {
    std::string trace;
};

// The plain way: each frame's address is named and demangled, one after the other.
[[gnu::noinline]] std::string PlainTrace() {
    void* addresses[64];
    const int count = backtrace(addresses, 64);
    const std::unique_ptr<char*, decltype(&std::free)> lines(backtrace_symbols(addresses, count), &std::free);
    std::string trace;
    for (int i = 1; i < count; ++i) {
        Dl_info symbol;
        if (dladdr(addresses[i], &symbol) == 0) {
            break;
        }
        int status = 0;
        const std::unique_ptr<char, decltype(&std::free)> name(
            symbol.dli_sname != nullptr ? abi::__cxa_demangle(symbol.dli_sname, nullptr, nullptr, &status) : nullptr,
            &std::free);
        trace += std::string("   at: ") + (name ? name.get() : lines.get()[i]) + "\r\n";
    }
    return trace;
}

void ThrowVeException() { throw VeException("{0}: failed: {1}", "Operation", "reason"); }

void ThrowPlainError() { throw PlainError{PlainTrace()}; }

}  // namespace

void RegisterFailures() {
    RegisterThrow<VeException>("library", &ThrowVeException);
    RegisterThrow<PlainError>("bare", &ThrowPlainError);
    Register("message/compose/library", [] {
        benchmark::DoNotOptimize(
            Kel::FormatMessage("{0}: Could not open {1} ({2})",
                               {Kel::FormatArgument(place), Kel::FormatArgument(path), Kel::FormatArgument(number)}));
    });
    Register("message/compose/bare", [] {
        char text[100];
        const int length = std::snprintf(text, sizeof text, "%s: Could not open %s (%d)", place, path, number);
        benchmark::DoNotOptimize(std::string(text, static_cast<std::size_t>(length)));
    });
    Register("message/compose/std", [] {
        std::ostringstream text;
        text << place << ": Could not open " << path << " (" << number << ")";
        benchmark::DoNotOptimize(text.str());
    });
}
