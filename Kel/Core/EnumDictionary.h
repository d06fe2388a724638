#pragma once

#include <Kel/Core/EnumDictionaryBase.h>

namespace Kel {

/// The one dictionary of an enumeration. Each enumeration defines its own `GetInstance`.
template <typename Enum>
class EnumDictionary : public EnumDictionaryBase<Enum> {
public:
    /// Made on first use, never destroyed. Thread-safe.
    static const EnumDictionary& GetInstance();

private:
    using EnumDictionaryBase<Enum>::EnumDictionaryBase;
};

}  // namespace Kel
