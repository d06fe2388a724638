#include <Kel/Core/AppDomain.h>

#include <Kel/Core/ErrorText.h>

#include <cstring>
#include <functional>
#include <memory>
#include <utility>

namespace Kel {

namespace {

[[noreturn, gnu::cold, gnu::noinline]] void ThrowFailure(int code) {
    throw Exception("Lock of the AppDomain failed: {0}", ErrorText(code));
}

void Check(int code) {
    if (code != 0) {
        ThrowFailure(code);
    }
}

struct Unlock {
    void operator()(pthread_rwlock_t* lock) const { pthread_rwlock_unlock(lock); }
};

using Locked = std::unique_ptr<pthread_rwlock_t, Unlock>;

Locked LockForReading(pthread_rwlock_t& lock) {
    Check(pthread_rwlock_rdlock(&lock));
    return Locked(&lock);
}

Locked LockForWriting(pthread_rwlock_t& lock) {
    Check(pthread_rwlock_wrlock(&lock));
    return Locked(&lock);
}

// Of types with names at different addresses.
[[gnu::noinline]] bool IsBefore(std::type_index left, std::type_index right) {
    const int order = std::strcmp(left.name(), right.name());
    // Types that are local to different source files may have the same name.
    return order != 0 ? order < 0 : left != right && std::less<>()(left.name(), right.name());
}

}  // namespace

// Each making and deleting of an object looks for the factory, whose name is nearly always at one address.
inline bool AppDomain::TypeOrder::operator()(std::type_index left, std::type_index right) const {
    return left.name() != right.name() && IsBefore(left, right);
}

// One pointer for the whole process: hosts, the library and other libraries all bind to this definition.
template <>
AppDomain* Singleton<AppDomain>::pInstance = nullptr;

AppDomain::AppDomain() { Check(pthread_rwlock_init(&lock, nullptr)); }

AppDomain::~AppDomain() { pthread_rwlock_destroy(&lock); }

void* AppDomain::Find(std::type_index type) const {
    const Locked locked = LockForReading(lock);
    const auto entry = singletons.find(type);
    return entry == singletons.end() ? nullptr : entry->second;
}

bool AppDomain::Add(std::type_index type, void* instance) {
    // Made outside the lock, under which nothing is allocated.
    decltype(singletons) single;
    single.emplace(type, instance);
    auto entry = single.extract(single.begin());
    const Locked locked = LockForWriting(lock);
    return singletons.insert(std::move(entry)).inserted;
}

void* AppDomain::Withdraw(std::type_index type) {
    const Locked locked = LockForWriting(lock);
    const auto entry = singletons.find(type);
    return entry == singletons.end() ? nullptr : std::exchange(entry->second, nullptr);
}

void AppDomain::RemoveWithdrawn(std::type_index type) {
    const Locked locked = LockForWriting(lock);
    const auto entry = singletons.find(type);
    if (entry != singletons.end() && entry->second == nullptr) {
        singletons.erase(entry);
    }
}

}  // namespace Kel
