#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// Reports crashes of the process: SIGSEGV, SIGILL and SIGFPE. What is set up stays so for the rest of the process,
/// also when the object is deleted. Nothing here throws, waits, or is a cancellation point.
class KEL_API ISignalHandlerService : public virtual IServiceObject {
public:
    /// Sets the process's callbacks, either of which may be null, and installs the handler (sigaction). Call it before
    /// threads are started; calling it again replaces the callbacks.
    ///
    /// `terminateCallback` gets the report of a crash, the signal's name and a stack trace, in the thread that has
    /// crashed. It must end the process: if it returns, or is null, the crash recurs, for ever. It runs in a process
    /// that is broken; the report itself was made with allocated memory.
    ///
    /// `throwExceptionCallback` is called by the handlers that turn a crash into an exception, see
    /// `Internal::Linux::SignalHandlerService`.
    virtual void Setup(void (*throwExceptionCallback)(), void (*terminateCallback)(const BasicString&)) = 0;
};

}  // namespace Kel::System::Ve
