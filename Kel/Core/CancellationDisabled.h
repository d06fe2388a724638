#pragma once

#include <pthread.h>

namespace Kel {

/// While it lives, this thread is not cancelled; a request that comes meanwhile waits. For destructors that may block:
/// cancelled there, a thread would unwind out of the destructor, and that ends the process.
class CancellationDisabled {
public:
    CancellationDisabled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous); }
    ~CancellationDisabled() { pthread_setcancelstate(previous, nullptr); }

    CancellationDisabled(const CancellationDisabled&) = delete;
    CancellationDisabled& operator=(const CancellationDisabled&) = delete;

private:
    int previous = PTHREAD_CANCEL_ENABLE;
};

}  // namespace Kel
