#include <Kel/System/Ve/Internal/ServiceManagerStatistics.h>

namespace Kel::System::Ve::Internal {

ServiceManagerStatistics::~ServiceManagerStatistics() = default;

}  // namespace Kel::System::Ve::Internal
