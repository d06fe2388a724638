// Names of types and symbols: whatever the mangled name, it is demangled or refused, and the keywords are gone.

#include "Fuzz.h"

#include <Kel/Core/RuntimeTypeInfo.h>

#include <typeinfo>

using Kel::RuntimeTypeInfo;

namespace {

class NamedType : public std::type_info {
public:
    explicit NamedType(const char* name) : std::type_info(name) {}
};

}  // namespace

static const Target target("TypeName", [](std::istream& input) {
    std::string raw;
    std::getline(input, raw, '\0');
    const std::string whole = RuntimeTypeInfo::DemangleSymbol(raw.c_str());
    std::string name;
    const std::string thrown = Thrown([&] { name = RuntimeTypeInfo::GetTypeName(NamedType(("**" + raw).c_str())); });
    // One star at the front is left out by the standard library, one by ours.
    Require(raw[0] == '*' || thrown == (whole.empty() ? "Demangling of type name '" + raw + "' failed." : ""),
            "a type has a name unless it cannot be demangled");
    const auto contains = [](const std::string& text, const char* part) {
        return text.find(part) != std::string::npos;
    };
    const auto hasKeyword = [&](const std::string& text) {
        return contains(text, "class ") || contains(text, "struct ") || contains(text, "enum ");
    };
    Require(!hasKeyword(name), "no keyword is left");
    Require(raw[0] == '*' || hasKeyword(whole) || name == whole, "nothing is changed beside");
});
