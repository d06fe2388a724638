// Names of types and symbols: whatever the mangled name, it is demangled or refused, and the keywords are gone.

#include "Fuzz.h"

#include <Kel/Core/RuntimeTypeInfo.h>

#include <regex>
#include <typeinfo>

struct NamedType : std::type_info {
    explicit NamedType(const char* name) : std::type_info(name) {}
};

static bool HasKeyword(const std::string& text) {
    static const std::regex keyword("(class|struct|enum) ");
    return std::regex_search(text, keyword);
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
