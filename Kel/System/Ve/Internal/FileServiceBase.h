#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IFileService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// What the files of all platforms have in common: being service objects. The static operations, which need no open
/// file, are the platform's; they are thread-safe.
class KEL_API FileServiceBase : public IFileService, public virtual ServiceObjectBase {
public:
    /// Returns whether there is a file or folder with that path that this process can see (stat).
    static bool Exists(const BasicString& path);

    /// Removes a file or an empty folder (remove). Returns whether it did.
    static bool Delete(const BasicString& path);

    /// Waits until all data of the system is on the disks (sync). No cancellation point.
    static void SyncAll();

    /// Waits until the data of a file or folder is on the disk (open, fsync). Returns 0, or -1 when the file could not
    /// be closed after that. Throws VeException on failure. A cancellation point.
    static int Sync(const BasicString& path);

    /// Returns the class of an error number: 0 none, 3 the file is missing, 4 it exists, 5 it must not be used, 6 the
    /// disk is full, 1 anything else.
    static int MapSystemErrorCode(unsigned int code);
};

}  // namespace Kel::System::Ve::Internal
