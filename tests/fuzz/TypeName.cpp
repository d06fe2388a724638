// Names of types and symbols: whatever the mangled name, it is demangled or refused, and the keywords are gone.

#include "Fuzz.h"

#include <Kel/Core/RuntimeTypeInfo.h>

#include <algorithm>
#include <iterator>
#include <typeinfo>

struct NamedType : std::type_info {
    explicit NamedType(const char* name) : std::type_info(name) {}
};

static bool HasKeyword(const std::string& text) {
    const char* const keywords[] = {"class ", "struct ", "enum "};
    return std::any_of(std::begin(keywords), std::end(keywords),
                       [&](const char* keyword) { return text.find(keyword) != std::string::npos; });
}

static const Target target("TypeName", [](std::istream& input) {
    std::string raw;
    std::getline(input, raw, '\0');
    const std::string whole = Kel::RuntimeTypeInfo::DemangleSymbol(raw.c_str());
    std::string name;
    // One star at the front is left out by the standard library, one by ours.
    const std::string starred = "**" + raw;
    const std::string thrown = Thrown([&] { name = Kel::RuntimeTypeInfo::GetTypeName(NamedType(starred.c_str())); });
    Require(raw[0] == '*' || thrown == (whole.empty() ? "Demangling of type name '" + raw + "' failed." : ""),
            "a type has a name unless it cannot be demangled");
    Require(!HasKeyword(name), "no keyword is left");
    Require(raw[0] == '*' || HasKeyword(whole) || name == whole, "nothing is changed beside");
});
