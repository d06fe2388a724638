#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// A region of memory that all processes share which know its name. It is mapped, readable and writable, until the
/// process ends, also when the object is deleted; the name and the contents stay until they are unlinked. Close and
/// Unlink may be called from any thread; what is written into the memory the users order themselves, for instance with
/// an inter-process mutex in it. Nothing waits, nothing is a cancellation point. What fails throws `Kel::Exception`,
/// which is no VeException.
class KEL_API ISharedMemoryService : public virtual IServiceObject {
public:
    /// What the constructor does; any value but `Create` opens.
    enum class mode : int {
        Create = 0,  ///< creates, or empties what exists
        Open = 1,    ///< fails when it does not exist; its size is not looked at
    };

    /// Returns where the memory is mapped.
    virtual void* GetAddress() = 0;

    /// Returns the name as it was given.
    virtual const BasicString& GetName() const = 0;

    /// Returns the size in bytes that was asked for, also when the object that was opened has another.
    virtual unsigned int GetSize() const = 0;

    /// Closes the descriptor (close); the memory stays mapped, but the name cannot be unlinked through this object any
    /// more. Does nothing when it is closed or unlinked.
    virtual void Close() = 0;

    /// Removes the name (shm_unlink); those who have the memory mapped keep it. The descriptor stays open, for the rest
    /// of the process. Does nothing when it is closed or unlinked.
    virtual void Unlink() = 0;
};

}  // namespace Kel::System::Ve
