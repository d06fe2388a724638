#pragma once

#include <Kel/Core/AppDomain.h>
#include <Kel/Core/Exception.h>
#include <Kel/Core/RuntimeTypeInfo.h>

#include <typeinfo>

namespace Kel {

/// Base of a class of which the AppDomain holds one instance. Thread-safe.
template <typename T>
class AppDomainSingleton {
public:
    /// Returns the instance. Throws `Kel::Exception` when there is none, or no AppDomain.
    static T* GetInstance() {
        T* const instance = static_cast<T*>(Singleton<AppDomain>::GetInstance().Find(typeid(T)));
        if (instance == nullptr) {
            throw Exception("AppDomain Singleton instance of type '{0}' was not created yet!",
                            RuntimeTypeInfo::GetTypeName(typeid(T)));
        }
        return instance;
    }

protected:
    ~AppDomainSingleton() = default;
};

}  // namespace Kel
