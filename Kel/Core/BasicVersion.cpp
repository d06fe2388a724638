#include <Kel/Core/BasicVersion.h>

namespace Kel {

BasicVersion::BasicVersion(const BasicString& newText, std::uint8_t newMajor, std::uint8_t newMinor,
                           std::uint8_t newPatch, std::uint32_t newBuild, const BasicString& newSuffix)
    : text(newText),
      majorNumber(newMajor),
      minorNumber(newMinor),
      patchNumber(newPatch),
      buildNumber(newBuild),
      suffix(newSuffix) {}

BasicVersion::~BasicVersion() = default;

}  // namespace Kel
