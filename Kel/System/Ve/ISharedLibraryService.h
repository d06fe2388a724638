#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// A shared library, loaded at run time and kept in memory for as long as it is loaded, so that calls into it take no
/// page faults; without the right to lock memory (RLIMIT_MEMLOCK) it is loaded all the same. What is unloaded, and
/// stays in the process for other reasons, is not locked any more, also when the program has called mlockall. Not
/// thread-safe: one owner drives an object. No operation is a cancellation point. While a library's own code runs in
/// Load or Unload, the loader keeps others waiting: who loads, and who makes an exception, whose stack trace asks for
/// names.
class KEL_API ISharedLibraryService : public virtual IServiceObject {
public:
    /// Loads a library (dlopen with all symbols bound, for later libraries, too, and mlock). Backslashes in the path
    /// count as slashes; a path without either is searched for as the loader does it; an empty one is the program
    /// itself. Waits for the storage. Throws VeException when it cannot be loaded. Unload first what is loaded: it
    /// would stay so for ever.
    virtual void Load(const BasicString& path) = 0;

    /// Unloads the library (munlock, dlclose); addresses in it are good no longer. Does nothing when none is loaded.
    /// Throws VeException when it cannot be unloaded; it is still loaded then, but not kept in memory.
    virtual void Unload() = 0;

    /// Returns the address of a function or variable (dlsym); null when there is none of that name, or no library.
    virtual void* GetFunctionAddress(const BasicString& name) const = 0;
};

}  // namespace Kel::System::Ve
