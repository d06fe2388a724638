#pragma once

#include <sched.h>

namespace Kel::System::Ve::Internal::Linux {

/// Returns the set of processors that a mask names, bit n for processor n.
inline cpu_set_t CpuSetOf(unsigned int mask) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (unsigned int processor = 0; processor < 32; ++processor) {
        if ((mask >> processor & 1U) != 0) {
            CPU_SET(processor, &set);
        }
    }
    return set;
}

}  // namespace Kel::System::Ve::Internal::Linux
