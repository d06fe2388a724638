#pragma once

#include <pthread.h>

namespace Kel::System::Ve::Internal::Linux {

/// Makes a condition variable that measures time on the monotonic clock. `processShared` is PTHREAD_PROCESS_SHARED or
/// PTHREAD_PROCESS_PRIVATE. Makes the attribute, too, and leaves it. Throws VeException when a call fails.
void InitCondition(pthread_cond_t& condition, pthread_condattr_t& attributes, int processShared);

}  // namespace Kel::System::Ve::Internal::Linux
