#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/SharedMemoryServiceBase.h>

#include <atomic>

namespace Kel::System::Ve::Internal::Linux {

/// The shared memory service on Linux. Names begin with a slash; the system decides which are good. What is created can
/// be used by all, less the process's umask. The descriptor is closed in programs that this process starts.
class KEL_API SharedMemoryService final : public SharedMemoryServiceBase {
public:
    /// Creates (`mode::Create`) or opens `memoryName`, and maps `bytes` of it (shm_open, ftruncate, mmap). Creating
    /// what exists empties it. Opening does not look how large it is: what is used beyond its end raises SIGBUS.
    SharedMemoryService(const BasicString& memoryName, unsigned int bytes, mode openMode);

    /// Closes the descriptor; unmaps and unlinks nothing. A failure ends the process.
    ~SharedMemoryService() override;

    void Close() override;
    void Unlink() override;

private:
    void Create();
    void Open();
    void TruncateMemory();
    void MapMemory();

    // 0 when there is none.
    std::atomic<int> descriptor{0};
};

}  // namespace Kel::System::Ve::Internal::Linux
