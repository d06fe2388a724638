#include <Kel/System/Ve/Internal/SharedLibraryServiceBase.h>

namespace Kel::System::Ve::Internal {

BasicString SharedLibraryServiceBase::GetPathOfVeLibrary() { return GetPathOfCurrentModule(); }

}  // namespace Kel::System::Ve::Internal
