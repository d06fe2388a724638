#pragma once

// What every test needs.

#include "Child.h"
#include "FactoryTest.h"
#include "FailingCall.h"
#include "OwnCounts.h"
#include "Throws.h"

#include <Kel/Core/AppDomain.h>
#include <Kel/Core/AppDomainSingleton.h>
#include <Kel/Core/BasicString.h>
#include <Kel/Core/BasicStringFormatExceptionHandler.h>
#include <Kel/Core/BasicVersion.h>
#include <Kel/Core/EnumDictionary.h>
#include <Kel/Core/Exception.h>
#include <Kel/Core/RuntimeTypeInfo.h>
#include <Kel/System/Ve/Exceptions/AccessDeniedException.h>
#include <Kel/System/Ve/Exceptions/AlreadyExistsException.h>
#include <Kel/System/Ve/Exceptions/InvalidPathException.h>
#include <Kel/System/Ve/Exceptions/NotExistException.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/ConditionVariableService.h>
#include <Kel/System/Ve/Internal/Linux/FileService.h>
#include <Kel/System/Ve/Internal/Linux/IpcCondVarService.h>
#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>
#include <Kel/System/Ve/Internal/Linux/LinuxServiceFactory.h>
#include <Kel/System/Ve/Internal/Linux/MessageQueueService.h>
#include <Kel/System/Ve/Internal/Linux/MutexService.h>
#include <Kel/System/Ve/Internal/Linux/NetworkInterfaceInfo.h>
#include <Kel/System/Ve/Internal/Linux/ProcessService.h>
#include <Kel/System/Ve/Internal/Linux/RWLockService.h>
#include <Kel/System/Ve/Internal/Linux/SemaphoreService.h>
#include <Kel/System/Ve/Internal/Linux/SharedLibraryService.h>
#include <Kel/System/Ve/Internal/Linux/SharedMemoryService.h>
#include <Kel/System/Ve/Internal/Linux/SignalHandlerService.h>
#include <Kel/System/Ve/Internal/Linux/SocketService.h>
#include <Kel/System/Ve/Internal/Linux/ThreadService.h>
#include <Kel/System/Ve/Internal/Linux/TimeoutConversion.h>
#include <Kel/System/Ve/Internal/Linux/TimerService.h>
#include <Kel/System/Ve/Internal/Linux/TraceControllerService.h>
#include <Kel/System/Ve/Internal/MutexGuard.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>
#include <Kel/System/Ve/ServiceType.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace Kel;
using namespace Kel::System::Ve;
using namespace Kel::System::Ve::Exceptions;
using namespace Kel::System::Ve::Internal;
using namespace Kel::System::Ve::Internal::Linux;
/// Why a test is skipped.
constexpr char needsRealTime[] = "needs the right to real-time priorities (CAP_SYS_NICE or RLIMIT_RTPRIO)";

inline bool MayHaveRealTimePriority() {
    bool may = false;
    std::thread([&] {
        const sched_param lowest{1};
        may = pthread_setschedparam(pthread_self(), SCHED_FIFO, &lowest) == 0;
    }).join();
    return may;
}

/// Runs a command of the shell's; true when it ends with status 0.
inline bool Succeeds(const std::string& command) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): whoever calls it waits for it.
    return system((command + " >/dev/null 2>&1").c_str()) == 0;
}

/// True when the program runs as code of another machine, on this one's kernel.
// NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment meanwhile.
inline bool IsEmulated() { return getenv("KEL_TESTS_ARE_EMULATED") != nullptr; }

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

/// Whether `operation` takes as long at least.
template <typename Clock = steady_clock, typename Operation>
bool Takes(milliseconds atLeast, Operation operation) {
    const auto start = Clock::now();
    operation();
    return Clock::now() - start >= atLeast;
}

/// Waits for a condition that another thread brings about; one that never comes is ended by the runner's time limit.
template <typename Condition>
void WaitUntil(Condition condition) {
    while (!condition()) {
        std::this_thread::yield();
    }
}
