#include "FailureWorks.h"

[[gnu::noinline]] void ThrowAtDepth(int depth, void (*volatile throwNow)()) {
    if (depth > 0) {
        ThrowAtDepth(depth - 1, throwNow);
    } else {
        throwNow();
    }
    // Not the last thing is the call, or it would have no frame.
    benchmark::ClobberMemory();
}
