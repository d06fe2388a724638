#pragma once

#include <Kel/Core/Export.h>

#include <cstdint>

namespace Kel::System::Ve::Internal::Linux {

/// Keeps a range of memory from being paged out (mlock, munlock). Ranges that are the same are locked together: the
/// last to end unlocks it. Whether the system could lock it is not told. Different ranges must not share pages.
class KEL_API LockedMemorySegment {
public:
    /// Locks the pages of `bytes` bytes from `start` on; none when that is null.
    LockedMemorySegment(void* start, std::uint32_t bytes);
    ~LockedMemorySegment();

    /// Leaves the source without a range.
    LockedMemorySegment(LockedMemorySegment&& source) noexcept;

    /// The same. What was locked before stays locked for ever: move only into a segment without a range.
    LockedMemorySegment& operator=(LockedMemorySegment&& source) noexcept;

    LockedMemorySegment(const LockedMemorySegment&) = delete;
    LockedMemorySegment& operator=(const LockedMemorySegment&) = delete;

    /// Null when there is no range.
    void* GetAddress() const { return address; }
    /// In bytes.
    std::uint32_t GetLength() const { return length; }

private:
    void* address;
    std::uint32_t length;
};

}  // namespace Kel::System::Ve::Internal::Linux
