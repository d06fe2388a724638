// Names of types and symbols: whatever the mangled name, it is demangled or refused, and the keywords are gone.

#include "Fuzz.h"

#include <Kel/Core/RuntimeTypeInfo.h>

#include <typeinfo>

namespace {

class NamedType : public std::type_info {
public:
    explicit NamedType(const char* name) : std::type_info(name) {}
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Kel::RuntimeTypeInfo;
    const std::string symbol = UpToNull(Input(data, size).Rest());
    // One star is left out by the standard library, one by ours.
    const std::size_t stars = std::min<std::size_t>(2, symbol.find_first_not_of('*'));
    const std::string raw = symbol.substr(std::min(stars, symbol.size()));
    const std::string whole = RuntimeTypeInfo::DemangleSymbol(raw.c_str());
    std::string name;
    const std::string thrown = Thrown([&] { name = RuntimeTypeInfo::GetTypeName(NamedType(symbol.c_str())); });
    Require(thrown == (whole.empty() ? "0 Demangling of type name '" + raw + "' failed." : ""),
            "a type has a name unless it cannot be demangled");
    bool hadKeyword = false;
    for (const char* const keyword : {"class ", "struct ", "enum "}) {
        Require(name.find(keyword) == std::string::npos, "no keyword is left");
        hadKeyword = hadKeyword || whole.find(keyword) != std::string::npos;
    }
    Require(hadKeyword ? name.size() < whole.size() : name == whole, "nothing is changed beside");
    return 0;
}
