#include <Kel/System/Ve/Internal/Linux/LockedMemorySegment.h>

#include <sys/mman.h>

#include <map>
#include <mutex>
#include <utility>

namespace Kel::System::Ve::Internal::Linux {

namespace {

// How many segments hold each range. The system does not count: one unlocking undoes any number of lockings.
class Holders {
public:
    // Never destroyed: service objects may be, at the very end of the process.
    static Holders& GetInstance() {
        static auto* const instance = new Holders;
        return *instance;
    }

    void Lock(void* address, std::uint32_t length) {
        const std::lock_guard guard(mutex);
        ++counts[{address, length}];
        mlock(address, length);
    }

    void Unlock(void* address, std::uint32_t length) {
        const std::lock_guard guard(mutex);
        const auto entry = counts.find({address, length});
        if (--entry->second == 0) {
            counts.erase(entry);
            munlock(address, length);
        }
    }

private:
    std::mutex mutex;
    std::map<std::pair<void*, std::uint32_t>, unsigned int> counts;
};

}  // namespace

LockedMemorySegment::LockedMemorySegment(void* start, std::uint32_t bytes) : address(start), length(bytes) {
    if (address != nullptr) {
        Holders::GetInstance().Lock(address, length);
    }
}

LockedMemorySegment::~LockedMemorySegment() {
    if (address != nullptr) {
        Holders::GetInstance().Unlock(address, length);
    }
}

LockedMemorySegment::LockedMemorySegment(LockedMemorySegment&& source) noexcept
    : address(std::exchange(source.address, nullptr)), length(std::exchange(source.length, 0)) {}

LockedMemorySegment& LockedMemorySegment::operator=(LockedMemorySegment&& source) noexcept {
    address = std::exchange(source.address, nullptr);
    length = std::exchange(source.length, 0);
    return *this;
}

}  // namespace Kel::System::Ve::Internal::Linux
