#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>

#include <type_traits>

namespace Kel::System::Ve::Internal::Linux {

// It is used where it lies, without a constructor, and its address is that of the POSIX mutex.
static_assert(std::is_trivially_default_constructible_v<IpcMutexService>);
static_assert(std::is_standard_layout_v<IpcMutexService>);

void IpcMutexService::Init(bool recursive) { PosixMutex::Init(recursive, PTHREAD_PROCESS_SHARED); }

}  // namespace Kel::System::Ve::Internal::Linux
