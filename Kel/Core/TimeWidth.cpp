#include <Kel/Core/TimeWidth.h>

namespace Kel {

template <>
const char LibraryWithTimeBits<int{sizeof(std::time_t) * 8}>::marker{};

}  // namespace Kel
