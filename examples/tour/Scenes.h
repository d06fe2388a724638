#pragma once

#include "Narrator.h"

#include <Kel/System/Ve/Internal/ServiceFactory.h>

// The scenes of the tour, in order.

/// Makes the factory; the AppDomain exists.
Kel::System::Ve::Internal::ServiceFactory& ShowStart(Narrator& narrator);

void ShowMutexes(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowPriorityInheritance(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowInterProcessMutex(Narrator& narrator);

void ShowConditionVariable(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowReadWriteLock(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowNamedSemaphore(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowThread(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowTimer(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);

void ShowTcp(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowUdp(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowLocalSocket(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowMessageQueue(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowSharedMemory(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowFile(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowNetworkInterfaces(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);

void ShowProcesses(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowSharedLibrary(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowCrashReport(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
void ShowCrashAsException(Narrator& narrator);
void ShowTraceController(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);

/// Disposes the factory with two objects left alive.
void ShowLeakReport(Narrator& narrator, Kel::System::Ve::Internal::ServiceFactory& factory);
