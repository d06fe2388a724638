#pragma once

#include <Kel/Core/Exception.h>
#include <Kel/Core/Export.h>
#include <Kel/Core/RuntimeTypeInfo.h>

#include <typeinfo>

namespace Kel {

/// The one `T` of the process, made and owned by the host. Each `T` defines its own `pInstance`.
template <typename T>
class KEL_API Singleton {
public:
    /// Set by the host before the first use and set back to null after the last; null when there is none.
    static T* pInstance;

    /// Throws `Kel::Exception` when there is none.
    static T& GetInstance() {
        if (pInstance == nullptr) {
            throw Exception("Singleton instance of type '{0}' was not created yet!",
                            RuntimeTypeInfo::GetTypeName(typeid(T)));
        }
        return *pInstance;
    }
};

}  // namespace Kel
