#include <Kel/Core/BasicString.h>

namespace Kel {

const BasicString BasicString::Empty;

}  // namespace Kel
