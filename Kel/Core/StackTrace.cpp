#include <Kel/Core/StackTrace.h>

#include <Kel/Core/RuntimeTypeInfo.h>

#include <dlfcn.h>
#include <execinfo.h>

#include <cstdlib>
#include <memory>

namespace Kel {

BasicString FormatStackTrace(void* const* addresses, int count) {
    BasicString text;
    for (void* const* address = addresses; address < addresses + count; ++address) {
        Dl_info symbol;
        if (dladdr(*address, &symbol) == 0) {
            break;
        }
        text += "   at: ";
        const BasicString name = RuntimeTypeInfo::DemangleSymbol(symbol.dli_sname);
        if (!name.empty()) {
            text += name;
        } else {
            const std::unique_ptr<char*, decltype(&std::free)> line(backtrace_symbols(address, 1), &std::free);
            text += line ? *line : "";
        }
        text += "\r\n";
    }
    return text;
}

}  // namespace Kel
