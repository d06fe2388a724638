// A tour of the library on the real system: every scene uses one service the way a program would, says in plain words
// what it does, and checks what it says. The exit code is 0 when everything was as told.

#include "Narrator.h"
#include "Scenes.h"

#include <Kel/Core/AppDomain.h>

#include <cstdlib>
#include <exception>
#include <iostream>

int main() {
    Narrator narrator;
    try {
        std::cout << "A tour of libKel.System.Ve\n";
        Kel::AppDomain appDomain;
        Kel::Singleton<Kel::AppDomain>::pInstance = &appDomain;

        auto& factory = ShowStart(narrator);
        ShowMutexes(narrator, factory);
        ShowPriorityInheritance(narrator, factory);
        ShowInterProcessMutex(narrator);
        ShowConditionVariable(narrator, factory);
        ShowReadWriteLock(narrator, factory);
        ShowNamedSemaphore(narrator, factory);
        ShowThread(narrator, factory);
        ShowTimer(narrator, factory);
        ShowTcp(narrator, factory);
        ShowUdp(narrator, factory);
        ShowLocalSocket(narrator, factory);
        ShowMessageQueue(narrator, factory);
        ShowSharedMemory(narrator, factory);
        ShowFile(narrator, factory);
        ShowNetworkInterfaces(narrator, factory);
        ShowProcesses(narrator, factory);
        ShowSharedLibrary(narrator, factory);
        ShowCrashReport(narrator, factory);
        ShowCrashAsException(narrator);
        ShowTraceController(narrator, factory);
        ShowLeakReport(narrator, factory);

        Kel::Singleton<Kel::AppDomain>::pInstance = nullptr;
    } catch (const std::exception& exception) {
        narrator.Check(false, std::string("the tour was ended by an exception: ") + exception.what());
    }
    std::cout << (narrator.Succeeded() ? "\nEverything was as told.\n" : "\nNot everything was as told.\n");
    return narrator.Succeeded() ? EXIT_SUCCESS : EXIT_FAILURE;
}
