#pragma once

// What the pieces of code in the documents that are not whole programs may use without saying so.

#include <Kel/Core/AppDomain.h>
#include <Kel/System/Ve/Adapters/Lockable.h>
#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Adapters/SharedLockable.h>
#include <Kel/System/Ve/Adapters/Wait.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/FileServiceBase.h>
#include <Kel/System/Ve/Internal/Linux/IpcCondVarService.h>
#include <Kel/System/Ve/Internal/Linux/IpcMutexService.h>
#include <Kel/System/Ve/Internal/Linux/LockedMemorySegment.h>
#include <Kel/System/Ve/Internal/Linux/SignalHandlerService.h>
#include <Kel/System/Ve/Internal/Linux/TimerService.h>
#include <Kel/System/Ve/Internal/ProcessServiceBase.h>
#include <Kel/System/Ve/Internal/ServiceFactory.h>
#include <Kel/System/Ve/Internal/ThreadServiceBase.h>

#include <iostream>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

using namespace Kel::System::Ve;
using namespace Kel::System::Ve::Adapters;
using Internal::ServiceFactory;
