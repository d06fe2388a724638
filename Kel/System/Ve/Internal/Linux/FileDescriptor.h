#pragma once

#include <Kel/Core/CancellationDisabled.h>

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Kel::System::Ve::Internal::Linux {

/// As close, but not a cancellation point: cancelled there, a thread would lose a descriptor that it has given up.
inline int CloseDescriptor(int descriptor) {
    const CancellationDisabled disabled;
    return close(descriptor);
}

/// Owns a file descriptor, or -1 for none, and closes it at the end. Closing leaves errno alone.
class FileDescriptor {
public:
    explicit FileDescriptor(int openDescriptor) : descriptor(openDescriptor) {}

    ~FileDescriptor() {
        if (descriptor != -1) {
            const int errorNumber = errno;
            CloseDescriptor(descriptor);
            errno = errorNumber;
        }
    }

    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int Get() const { return descriptor; }

    /// Gives up the ownership.
    int Release() { return std::exchange(descriptor, -1); }

private:
    int descriptor;
};

}  // namespace Kel::System::Ve::Internal::Linux
