#pragma once

#include <Kel/Core/Export.h>
#include <Kel/Core/Singleton.h>

#include <pthread.h>

#include <map>
#include <typeindex>

namespace Kel {

/// The process's registry of singletons: at most one instance of each type, found by its type.
/// The host makes one and stores its address in `Singleton<AppDomain>::pInstance`. The instances are not owned.
/// Thread-safe; the lock is never held while foreign code runs or an exception is made. When it cannot be had, an
/// operation throws `Kel::Exception`.
class KEL_API AppDomain {
public:
    /// Throws `Kel::Exception` when the lock cannot be made.
    AppDomain();
    ~AppDomain();

    AppDomain(const AppDomain&) = delete;
    AppDomain& operator=(const AppDomain&) = delete;

    /// Returns the instance stored for `type`, null when there is none.
    void* Find(std::type_index type) const;

    /// Stores `instance` for `type`. Returns false, and changes nothing, when the type has an entry.
    bool Add(std::type_index type, void* instance);

    /// Returns the instance stored for `type` and leaves null in its place: of several callers one gets it.
    void* Withdraw(std::type_index type);

    /// Removes the entry of `type`, if there is one, unless there is an instance in it.
    void RemoveWithdrawn(std::type_index type);

private:
    // By name: on 32-bit ARM the order of `std::type_index` contradicts itself when one of two types is local to its
    // source file, and then one type's instance is found for the other.
    struct TypeOrder {
        bool operator()(std::type_index left, std::type_index right) const;
    };

    std::map<std::type_index, void*, TypeOrder> singletons;
    mutable pthread_rwlock_t lock;
};

/// The process's AppDomain.
template <>
KEL_API AppDomain* Singleton<AppDomain>::pInstance;

}  // namespace Kel
