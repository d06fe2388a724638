#include <Kel/System/Ve/Internal/Linux/PosixCondition.h>

#include <Kel/System/Ve/Internal/Linux/SystemCall.h>

#include <time.h>

namespace Kel::System::Ve::Internal::Linux {

void InitCondition(pthread_cond_t& condition, pthread_condattr_t& attributes, int processShared) {
    CheckReturnedCode(pthread_condattr_init(&attributes), "Could not initialize condition variable attribute.");
    CheckReturnedCode(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC),
                      "Could not set MONOTONIC clock as reference for condition variable.");
    // The text is the same when the condition variable is to be shared.
    CheckReturnedCode(pthread_condattr_setpshared(&attributes, processShared),
                      "Could not mark event as process private only.");
    CheckReturnedCode(pthread_cond_init(&condition, &attributes));
}

}  // namespace Kel::System::Ve::Internal::Linux
