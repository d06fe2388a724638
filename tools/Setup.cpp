#include "Setup.h"

#include "Attempt.h"

#include <Kel/System/Ve/Internal/Linux/TimerService.h>

#include <sys/mman.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

using Kel::System::Ve::Internal::ServiceFactory;
using Kel::System::Ve::Internal::Linux::TimerService;

namespace {

std::string LockMemory(ServiceFactory& factory) {
    if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
        return std::generic_category().message(errno);
    }
    // A limit that has room for what there is may have none for another stack.
    std::string failure = FailureOfThread(factory, 0, 0);
    if (!failure.empty()) {
        munlockall();
    }
    return failure;
}

template <class Attempt>
std::string Grant(const std::optional<bool>& wish, const std::string& option, Attempt attempt) {
    if (!wish.value_or(true)) {
        return "not wanted";
    }
    std::string failure = attempt();
    if (wish.has_value() && !failure.empty()) {
        throw std::runtime_error(option + ": " + failure);
    }
    return failure;
}

}  // namespace

Setup SetUp(ServiceFactory& factory, const Wishes& wishes) {
    return {Grant(wishes.lockMemory, "--lock-memory", [&] { return LockMemory(factory); }),
            Grant(wishes.latencyTarget, "--latency-target",
                  [] { return FailureOf([] { TimerService::SetLatencyTarget(); }); })};
}
