#pragma once

#include <Kel/Core/Export.h>

#include <cstdint>

namespace Kel::System::Ve::Internal {

/// Counts the live service objects. Not thread-safe; the factory changes it under its registry mutex.
class KEL_API ServiceManagerStatistics {
public:
    virtual ~ServiceManagerStatistics();

    /// Counts one more.
    void IncrementNumOfObjects() { ++numOfObjects; }
    /// Counts one less; wraps below zero.
    void DecrementNumOfObjects() { --numOfObjects; }

    /// The number of service objects alive now, not of those ever created. A thread that has been started counts as
    /// two, with its semaphore; a timer as three, with its mutex and its condition variable.
    std::uint32_t GetNumOfObjectsCreated() const { return numOfObjects; }
    /// Always 0.
    std::uint32_t GetTotalMemory() const { return totalMemory; }

private:
    std::uint32_t numOfObjects = 0;
    std::uint32_t totalMemory = 0;
};

}  // namespace Kel::System::Ve::Internal
