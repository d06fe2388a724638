#include "TwoThreads.h"

namespace {

// Those that this process may run on.
std::vector<int> UsableProcessors() {
    cpu_set_t set;
    Expect(sched_getaffinity(0, sizeof set, &set) == 0);
    std::vector<int> processors;
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(static_cast<unsigned int>(processor), &set)) {
            processors.push_back(processor);
        }
    }
    return processors;
}

}  // namespace

std::vector<Processors> OneAndTwoProcessors() {
    // As it is at the start: later this may be a thread that is bound.
    static const std::vector<Processors> pairs = [] {
        const std::vector<int> processors = UsableProcessors();
        std::vector<Processors> result{{" on one processor", processors[0], processors[0]}};
        if (processors.size() > 1) {
            result.push_back({" on two processors", processors[0], processors[1]});
        }
        return result;
    }();
    return pairs;
}
