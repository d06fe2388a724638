#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/Linux/LockedMemorySegment.h>
#include <Kel/System/Ve/Internal/SharedLibraryServiceBase.h>

#include <list>

namespace Kel::System::Ve::Internal::Linux {

/// The shared library service on Linux.
class KEL_API SharedLibraryService final : public SharedLibraryServiceBase {
public:
    SharedLibraryService();

    /// Unloads the library. A failure ends the process.
    ~SharedLibraryService() override;

    void Load(const BasicString& path) override;
    void Unload() override;
    void* GetFunctionAddress(const BasicString& name) const override;

    /// Locks the loadable segments of the library; those of which a record is kept already are recorded again. Does
    /// nothing when none is loaded.
    void LockMemory();

    /// Unlocks what this object has locked.
    void UnlockMemory();

private:
    void* handle = nullptr;
    std::list<LockedMemorySegment> lockedSegments;
};

}  // namespace Kel::System::Ve::Internal::Linux
