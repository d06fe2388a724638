#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/ISharedLibraryService.h>
#include <Kel/System/Ve/Internal/ServiceObjectBase.h>

namespace Kel::System::Ve::Internal {

/// Returns the path of the file that this library was loaded from, as the loader tells it: relative, if it was loaded
/// that way. The platform's; thread-safe.
KEL_API BasicString GetPathOfCurrentModule();

/// What the shared libraries of all platforms have in common: being service objects.
class KEL_API SharedLibraryServiceBase : public ISharedLibraryService, public virtual ServiceObjectBase {
public:
    /// `GetPathOfCurrentModule()`.
    static BasicString GetPathOfVeLibrary();
};

}  // namespace Kel::System::Ve::Internal
