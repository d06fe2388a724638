// Two processes share state: a mutex, a condition variable and what they guard lie in memory that has a name. A process
// that dies while it holds the mutex does not stop the other, which is told and mends what was half changed.

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Adapters/Runtime.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/IpcCondVarService.h>
#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>

#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <new>
#include <string>

using namespace Kel::System::Ve;
using Adapters::Own;
using Internal::ServiceFactory;
using Internal::Linux::IpcCondVarService;
using Internal::Linux::IpcMutexService;

namespace {

constexpr int lastTurn = 1000;

struct Shared {
    IpcMutexService mutex;
    IpcCondVarService changed;
    int turn = 0;  // even: the child's
    int left = 0;  // always equal to right, when the mutex is free
    int right = 0;
};

/// Holds the mutex while it lives.
class Guard {
public:
    explicit Guard(Shared& guarded) : shared(guarded) { shared.mutex.Lock(); }
    ~Guard() { shared.mutex.Unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    Shared& shared;
};

/// Takes every second turn, `remainder` 0 or 1; each changes both values.
bool TakeTurns(Shared& shared, int remainder) {
    const Guard guard(shared);
    while (shared.turn < lastTurn) {
        if (shared.turn % 2 == remainder) {
            ++shared.left;
            ++shared.right;
            ++shared.turn;
            shared.changed.NotifyAll();
        } else if (!shared.changed.WaitFor(shared.mutex, 60000)) {  // milliseconds
            return false;
        }
    }
    return true;
}

/// The other program: it knows the name of the memory and nothing else. It dies at the worst moment.
[[noreturn]] void RunChild(ServiceFactory& factory, const Kel::BasicString& name) {
    const auto memory = Own(factory.CreateSharedMemory(name, sizeof(Shared), ISharedMemoryService::mode::Open));
    auto& shared = *static_cast<Shared*>(memory->GetAddress());
    if (TakeTurns(shared, 0)) {
        shared.mutex.Lock();
        ++shared.left;
    }
    _exit(0);
}

bool Run(ServiceFactory& factory) {
    const Kel::BasicString name = "/kel-shared-state-" + std::to_string(getpid());
    const auto memory = Own(factory.CreateSharedMemory(name, sizeof(Shared), ISharedMemoryService::mode::Create));
    // Complete before any other process looks at it.
    auto& shared = *new (memory->GetAddress()) Shared;
    shared.mutex.Init(false);
    const pid_t child = fork();
    if (child == 0) {
        RunChild(factory, name);
    }
    const bool tookTurns = child > 0 && TakeTurns(shared, 1);
    const bool haveEnded = waitpid(child, nullptr, 0) == child;
    memory->Unlink();
    std::cout << shared.turn << " turns taken\n";

    std::string told;
    try {
        const Guard guard(shared);
    } catch (const Exceptions::VeException& exception) {
        told = exception.GetMessage();
    }
    std::cout << told << ": " << shared.left << " and " << shared.right << "\n";
    const bool wasBroken = shared.left != shared.right;
    {
        const Guard guard(shared);  // as good as before, and nobody else is there who could have had it meanwhile
        shared.right = shared.left;
    }
    shared.mutex.Destroy();
    return tookTurns && haveEnded && told == "Lock: Mutex could not be locked: Owner died" && wasBroken;
}

}  // namespace

int main() {
    const Adapters::Runtime runtime;
    return Run(*runtime) ? 0 : 1;
}
