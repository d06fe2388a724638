#include <Kel/Core/RuntimeTypeInfo.h>

#include <Kel/Core/Exception.h>

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <string_view>

namespace Kel {

BasicString RuntimeTypeInfo::DemangleSymbol(const char* symbol) {
    if (symbol == nullptr) {
        return BasicString();
    }
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(abi::__cxa_demangle(symbol, nullptr, nullptr, &status),
                                                           &std::free);
    return text ? BasicString(text.get()) : BasicString();
}

BasicString RuntimeTypeInfo::GetTypeName(const std::type_info& type) {
    const char* rawName = type.name();
    if (*rawName == '*') {
        ++rawName;
    }
    BasicString name = DemangleSymbol(rawName);
    if (name.empty()) {
        throw Exception("Demangling of type name '{0}' failed.", rawName);
    }
    const auto erase = [&](std::string_view keyword) {
        const auto position = name.find(keyword);
        if (position == BasicString::npos) {
            return false;
        }
        name.erase(position, keyword.size());
        return true;
    };
    // Until there is none: what is left on both sides of one may be another.
    while (erase("class ") || erase("struct ") || erase("enum ")) {
    }
    return name;
}

}  // namespace Kel
