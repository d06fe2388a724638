#pragma once

#include <Kel/System/Ve/Internal/Linux/PosixMutex.h>

#include <pthread.h>
#include <time.h>

namespace Kel::System::Ve::Internal::Linux {

/// Makes a condition variable that measures time on the monotonic clock. `processShared` is PTHREAD_PROCESS_SHARED or
/// PTHREAD_PROCESS_PRIVATE. Makes the attribute, too, and leaves it. Throws VeException when a call fails.
void InitCondition(pthread_cond_t& condition, pthread_condattr_t& attributes, int processShared);

/// @{
/// Waits, without limit or until a time on the monotonic clock. Returns the code of the call; EOWNERDEAD is in errno,
/// too. Cancellation points. The mutex is held afterwards, and consistent, whatever has become of its last holder.
int WaitForCondition(pthread_cond_t& condition, PosixMutex& mutex);
int WaitForCondition(pthread_cond_t& condition, PosixMutex& mutex, const timespec& deadline);
/// @}

}  // namespace Kel::System::Ve::Internal::Linux
