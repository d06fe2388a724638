#pragma once

// What every test needs.

#include "Child.h"
#include "Interposition.h"
#include "Outcome.h"
#include "Own.h"
#include "SharedObject.h"
#include "TemporaryFolder.h"

#include <Kel/Core/AppDomain.h>
#include <Kel/Core/BasicString.h>
#include <Kel/Core/Exception.h>
#include <Kel/Core/RuntimeTypeInfo.h>
#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Exceptions/AccessDeniedException.h>
#include <Kel/System/Ve/Exceptions/AlreadyExistsException.h>
#include <Kel/System/Ve/Exceptions/InvalidPathException.h>
#include <Kel/System/Ve/Exceptions/NotExistException.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/ConditionVariableService.h>
#include <Kel/System/Ve/Internal/Linux/FileService.h>
#include <Kel/System/Ve/Internal/Linux/IpcCondVarService.h>
#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>
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

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <utility>

using namespace Kel;
using namespace Kel::System::Ve;
using namespace Kel::System::Ve::Exceptions;
using namespace Kel::System::Ve::Internal;
using namespace Kel::System::Ve::Internal::Linux;
using Kel::System::Ve::Adapters::Own;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

/// An AppDomain for the time of a test.
class AppDomainTest : public testing::Test {
protected:
    AppDomainTest() { Singleton<AppDomain>::pInstance = &appDomain; }
    ~AppDomainTest() override { Singleton<AppDomain>::pInstance = nullptr; }

    AppDomain appDomain;
};

/// A factory for the time of a test, which must leave no service object and no file descriptor behind.
class FactoryTest : public AppDomainTest {
protected:
    FactoryTest() {
        ServiceFactory::CreateServiceFactory();
        factory = ServiceFactory::GetInstance();
    }
    ~FactoryTest() override {
        EXPECT_EQ(LiveObjects(), 0U);
        EXPECT_TRUE(factory->GetRegisteredServiceObjects().empty());
        ServiceFactory::DisposeServiceFactory();
        EXPECT_EQ(OpenDescriptors(), descriptorsBefore);
    }

    std::uint32_t LiveObjects() const { return factory->GetStatistics().GetNumOfObjectsCreated(); }

    ServiceFactory* factory;

private:
    const std::ptrdiff_t descriptorsBefore = OpenDescriptors();
};

/// Whether `operation` takes as long at least.
template <typename Clock = steady_clock, typename Function>
bool Takes(milliseconds atLeast, Function operation) {
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

/// A thread that has begun to run `function`, and sleeps in it.
inline std::thread Sleeping(const std::function<void()>& function) {
    std::atomic<pid_t> id{0};
    std::thread thread([&id, function] {
        id = gettid();
        function();
    });
    WaitUntil([&] { return id != 0 && ThreadStat(id, 3) == "S"; });
    return thread;
}

/// Whether `function` comes to its end in a thread that is cancelled at the first cancellation point.
inline bool HasNoCancellationPoint(const std::function<void()>& function) {
    bool isOver = false;
    std::thread([&] {
        pthread_cancel(pthread_self());
        function();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        isOver = true;
    }).join();
    return isOver;
}

/// A name for a named object of the system that no other process uses at the same time.
inline BasicString UniqueName(const std::string& purpose) {
    return "/kel-test-" + purpose + "-" + std::to_string(getpid());
}

/// Runs a command of the shell's; true when it ends with status 0.
inline bool Succeeds(const std::string& command) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): whoever calls it waits for it.
    return system((command + " >/dev/null 2>&1").c_str()) == 0;
}

/// True when the program runs as code of another machine, on this one's kernel.
// NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment meanwhile.
inline bool IsEmulated() { return getenv("KEL_TESTS_ARE_EMULATED") != nullptr; }
