#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/FormatMessage.h>

#include <initializer_list>
#include <istream>
#include <map>
#include <ostream>
#include <string>
#include <utility>

namespace Kel {

/// The name texts of an enumeration's values. Immutable once made, so thread-safe.
template <typename Enum>
class EnumDictionaryBase {
public:
    /// The names are constant texts that are not copied. `undefined` is written for values without a name; when it is
    /// empty, their number is.
    EnumDictionaryBase(std::initializer_list<std::pair<const Enum, const char*>> entries, const BasicString& undefined)
        : names(entries), undefinedText(undefined) {}

    /// Writes the name of `value`. A value without a name sets the stream's failbit, a null name its badbit.
    void WriteEnumString(std::ostream& stream, Enum value) const {
        const auto entry = names.find(value);
        if (entry == names.end()) {
            stream << (undefinedText.empty() ? FormatMessage("{:d}", {FormatArgument(value)}) : undefinedText);
            stream.setstate(std::ios_base::failbit);
        } else if (entry->second == nullptr) {
            stream.setstate(std::ios_base::badbit);
        } else {
            stream << entry->second;
        }
    }

    /// Reads one word; when it is a name (exactly, case matters), stores the value. Otherwise leaves `value` as it was
    /// and sets the stream's failbit.
    void ReadEnumString(std::istream& stream, Enum& value) const {
        std::string word;
        if (stream >> word) {
            for (const auto& [candidate, name] : names) {
                if (name != nullptr && word == name) {
                    value = candidate;
                    return;
                }
            }
        }
        stream.setstate(std::ios_base::failbit);
    }

private:
    std::map<Enum, const char*> names;
    BasicString undefinedText;
};

}  // namespace Kel
