#include <Kel/Core/StackTrace.h>

#include <Kel/Core/RuntimeTypeInfo.h>

#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>

#include <atomic>
#include <cstdlib>
#include <memory>
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

// The lines of addresses that were seen before. Naming an address takes microseconds, for the loader goes through all
// symbols of the module; nine tenths of the time of throwing went there.
class KnownLines {
public:
    /// Returns null while someone else uses them, who may be this thread, if it has crashed meanwhile: nobody waits.
    static KnownLines* TryAcquire() {
        // Never destroyed: there are exceptions until the very end of the process.
        static auto* const instance = new KnownLines;
        if (instance->isInUse.test_and_set(std::memory_order_acquire)) {
            return nullptr;
        }
        instance->ForgetUnloaded();
        return instance;
    }

    void Release() { isInUse.clear(std::memory_order_release); }

    const BasicString* Find(void* address) const {
        const auto found = lines.find(address);
        return found != lines.end() ? &found->second : nullptr;
    }

    void Add(void* address, const BasicString& line) {
        constexpr std::size_t most = 1024;
        if (lines.size() == most) {
            lines.clear();
        }
        lines.emplace(address, line);
    }

private:
    // Something else may have come to the addresses of what was unloaded.
    void ForgetUnloaded() {
        const Loadings count = CountLoadings();
        if (std::exchange(loadings, count) != count) {
            lines.clear();
        }
    }

    std::atomic_flag isInUse = ATOMIC_FLAG_INIT;
    Loadings loadings;
    std::unordered_map<void*, BasicString> lines;
};

// Empty when the address lies in no module.
BasicString MakeLine(void* address) {
    Dl_info symbol;
    if (dladdr(address, &symbol) == 0) {
        return {};
    }
    BasicString name = RuntimeTypeInfo::DemangleSymbol(symbol.dli_sname);
    if (name.empty()) {
        const std::unique_ptr<char*, decltype(&std::free)> line(backtrace_symbols(&address, 1), &std::free);
        name = line ? *line : "";
    }
    return "   at: " + name + "\r\n";
}

}  // namespace

BasicString FormatStackTrace(void* const* addresses, int count) {
    const auto release = [](KnownLines* lines) { lines->Release(); };
    const std::unique_ptr<KnownLines, decltype(release)> knownLines(KnownLines::TryAcquire(), release);
    BasicString text;
    for (void* const* address = addresses; address < addresses + count; ++address) {
        if (const BasicString* const known = knownLines ? knownLines->Find(*address) : nullptr; known != nullptr) {
            text += *known;
            continue;
        }
        const BasicString line = MakeLine(*address);
        if (line.empty()) {
            break;
        }
        text += line;
        if (knownLines) {
            knownLines->Add(*address, line);
        }
    }
    return text;
}

}  // namespace Kel
