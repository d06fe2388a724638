#include <Kel/System/Ve/Internal/Linux/SharedMemoryService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/Core/ErrorText.h>
#include <Kel/Core/Exception.h>
#include <Kel/System/Ve/Internal/Linux/FileDescriptor.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>

namespace Kel::System::Ve::Internal::Linux {

namespace {

constexpr mode_t forAll = 0666;

// For calls that return -1 and leave the number of an error in errno. The message's {0} is the operation, then come the
// arguments and the text of the error.
template <typename... Arguments>
void CheckCall(int result, const char* message, const char* operation, const Arguments&... arguments) {
    if (result == -1) {
        const int errorNumber = errno;
        throw Exception(message, operation, arguments..., ErrorText(errorNumber));
    }
}

}  // namespace

SharedMemoryService::SharedMemoryService(const BasicString& memoryName, unsigned int bytes, mode openMode)
    : ServiceObjectBase("SharedMemoryService", ServiceType::SharedMemory, true),
      SharedMemoryServiceBase(memoryName, bytes) {
    try {
        if (openMode == mode::Create) {
            Create();
        } else {
            Open();
        }
    } catch (...) {
        // Also -1 when there is none.
        const FileDescriptor closing(descriptor != 0 ? descriptor.load() : -1);
        throw;
    }
}

SharedMemoryService::~SharedMemoryService() {
    const CancellationDisabled disabled;
    Close();
}

void SharedMemoryService::Create() {
    descriptor = shm_open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC, forAll);
    CheckCall(descriptor, "{0}: Shared Memory <{1}> could not be created: {2}", __func__, name);
    TruncateMemory();
    MapMemory();
}

void SharedMemoryService::Open() {
    descriptor = shm_open(name.c_str(), O_RDWR, forAll);
    CheckCall(descriptor, "{0}: Shared Memory <{1}> could not be opened: {2}", __func__, name);
    MapMemory();
}

void SharedMemoryService::TruncateMemory() {
    CheckCall(ftruncate(descriptor, size), "{0}: Shared Memory <{1}> could not be truncated to {2} length: {3}",
              __func__, name, size);
}

void SharedMemoryService::MapMemory() {
    address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    CheckCall(address == MAP_FAILED ? -1 : 0, "{0}: Shared Memory <{1}> could not be mapped: {2}", __func__, name);
}

void SharedMemoryService::Close() {
    // Of several threads one closes: a second time would close whatever has got the number since.
    const int open = descriptor.exchange(0);
    if (open != 0) {
        CheckCall(CloseDescriptor(open), "{0}: Shared Memory <{1}> could not be closed: {2}", __func__, name);
    }
}

void SharedMemoryService::Unlink() {
    if (descriptor.exchange(0) != 0) {
        CheckCall(shm_unlink(name.c_str()), "{0}: Shared Memory <{1}> could not be unlinked: {2}", __func__, name);
    }
}

}  // namespace Kel::System::Ve::Internal::Linux
