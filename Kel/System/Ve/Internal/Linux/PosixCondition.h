#pragma once

#include <Kel/System/Ve/Internal/Linux/PosixMutex.h>

#include <pthread.h>
#include <time.h>

namespace Kel::System::Ve::Internal::Linux {

/// Makes a condition variable that measures time on the monotonic clock. `processShared` is PTHREAD_PROCESS_SHARED or
/// PTHREAD_PROCESS_PRIVATE. Makes the attribute, too, and leaves it. Throws VeException when a call fails.
void InitCondition(pthread_cond_t& condition, pthread_condattr_t& attributes, int processShared);

/// @{
/// Waits, without end or until a time on the monotonic clock; returns the code of the call. A mutex whose holder has
/// died meanwhile is made good. Cancellation points; the mutex is held and good then, too.
int WaitForCondition(pthread_cond_t& condition, PosixMutex& mutex);
int WaitForCondition(pthread_cond_t& condition, PosixMutex& mutex, const timespec& deadline);
/// @}

}  // namespace Kel::System::Ve::Internal::Linux
