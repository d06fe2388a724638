#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>

#include <cstdint>

namespace Kel {

/// A version: numbers for programs, a text for people. Freely copied.
class KEL_API BasicVersion {
public:
    /// Keeps what it is given; the numbers need not be those of the text.
    BasicVersion(const BasicString& newText, std::uint8_t newMajor, std::uint8_t newMinor, std::uint8_t newPatch,
                 std::uint32_t newBuild, const BasicString& newSuffix);
    /// @{
    /// A copy.
    BasicVersion(const BasicVersion&) = default;
    BasicVersion& operator=(const BasicVersion&) = default;
    /// @}
    virtual ~BasicVersion();

    /// The whole version, such as "2024.0.8 LTS".
    const BasicString& GetText() const { return text; }
    /// The last two digits of the year; the text has all four.
    unsigned int GetMajor() const { return majorNumber; }
    /// @{
    /// The second, third and fourth number.
    unsigned int GetMinor() const { return minorNumber; }
    unsigned int GetPatch() const { return patchNumber; }
    unsigned int GetBuild() const { return buildNumber; }
    /// @}

    /// What follows the numbers; empty for the library's own version.
    const BasicString& GetSuffix() const { return suffix; }

private:
    BasicString text;
    std::uint8_t majorNumber;
    std::uint8_t minorNumber;
    std::uint8_t patchNumber;
    std::uint32_t buildNumber;
    BasicString suffix;
};

}  // namespace Kel
