#include <Kel/Core/StackTrace.h>

#include <Kel/Core/RuntimeTypeInfo.h>

#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace Kel {

namespace {

// How many times the loader has loaded and unloaded something. With namespaces of its own, the latter goes back, too.
using Loadings = std::pair<unsigned long long, unsigned long long>;

Loadings CountLoadings() {
    Loadings count;
    const auto read = [](dl_phdr_info* module, std::size_t /*size*/, void* argument) {
        *static_cast<Loadings*>(argument) = {module->dlpi_adds, module->dlpi_subs};
        return 1;
    };
    dl_iterate_phdr(read, &count);
    return count;
}

// Empty when there is none, or a longer one than is demangled here: the demangler takes up to 70 KiB of the stack for a
// name of this length, which grows with it, and those who throw may have a small one.
BasicString NameOf(const char* symbol) {
    constexpr std::size_t longest = 200;
    return symbol != nullptr && std::strlen(symbol) <= longest ? RuntimeTypeInfo::DemangleSymbol(symbol)
                                                               : BasicString();
}

// The line of `address`, whose function is the one around `instruction`. Empty when that lies in no module.
BasicString MakeLine(void* address, const void* instruction) {
    Dl_info symbol;
    if (dladdr(instruction, &symbol) == 0) {
        return {};
    }
    BasicString name = NameOf(symbol.dli_sname);
    if (name.empty()) {
        const std::unique_ptr<char*, decltype(&std::free)> line(backtrace_symbols(&address, 1), &std::free);
        name = line ? *line : "";
    }
    return "   at: " + name + "\r\n";
}

// A function may end with the call of one that never returns, and another begin at the return address: the name is that
// of the function around the call.
BasicString MakeLineOfCaller(void* returnAddress) {
    return MakeLine(returnAddress, static_cast<const char*>(returnAddress) - 1);
}

// The lines of return addresses that were seen before. Naming an address takes microseconds, for the loader goes
// through all symbols of the module; nine tenths of the time of throwing went there.
class KnownLines {
public:
    // Something else may have come to the addresses of what was unloaded.
    void ForgetUnloaded() {
        const Loadings count = CountLoadings();
        if (std::exchange(loadings, count) != count) {
            lines.clear();
        }
    }

    const BasicString& LineOf(void* returnAddress) {
        const auto found = lines.find(returnAddress);
        if (found != lines.end()) {
            return found->second;
        }
        BasicString line = MakeLineOfCaller(returnAddress);
        constexpr std::size_t most = 1024;
        if (lines.size() == most) {
            lines.clear();
        }
        return lines.emplace(returnAddress, std::move(line)).first->second;
    }

    std::mutex mutex;

private:
    Loadings loadings;
    std::unordered_map<void*, BasicString> lines;
};

template <typename LineOf>
BasicString JoinLines(void* const* addresses, int count, LineOf lineOf) {
    BasicString text;
    for (void* const* address = addresses; address < addresses + count; ++address) {
        const auto& line = lineOf(*address);
        if (line.empty()) {
            break;
        }
        text += line;
    }
    return text;
}

}  // namespace

BasicString FormatStackTrace(void* const* addresses, int count) {
    // Never destroyed: there are exceptions until the very end of the process.
    static auto& known = *new KnownLines;
    const std::unique_lock lock(known.mutex, std::try_to_lock);
    if (!lock) {
        // Nobody waits.
        return JoinLines(addresses, count, &MakeLineOfCaller);
    }
    known.ForgetUnloaded();
    return JoinLines(addresses, count, [](void* address) -> const BasicString& { return known.LineOf(address); });
}

// Without the known lines, in whose use the thread may have crashed.
BasicString FormatCrashTrace(void* const* addresses, int count, const void* interrupted) {
    return JoinLines(addresses, count, [=](void* address) {
        return address == interrupted ? MakeLine(address, address) : MakeLineOfCaller(address);
    });
}

}  // namespace Kel
