#include <Kel/System/Ve/Internal/Linux/FileService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/Core/ErrorText.h>
#include <Kel/System/Ve/Exceptions/AccessDeniedException.h>
#include <Kel/System/Ve/Exceptions/AlreadyExistsException.h>
#include <Kel/System/Ve/Exceptions/InvalidPathException.h>
#include <Kel/System/Ve/Exceptions/NotExistException.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/FileDescriptor.h>
#include <Kel/System/Ve/Internal/Linux/SystemCall.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <exception>
#include <utility>

namespace Kel::System::Ve::Internal {

bool FileServiceBase::Exists(const BasicString& path) { return Linux::FileService::Exists(path); }

bool FileServiceBase::Delete(const BasicString& path) { return Linux::FileService::Delete(path); }

void FileServiceBase::SyncAll() { Linux::FileService::SyncAll(); }

int FileServiceBase::Sync(const BasicString& path) { return Linux::FileService::Sync(path); }

int FileServiceBase::MapSystemErrorCode(unsigned int code) { return Linux::FileService::MapSystemErrorCode(code); }

}  // namespace Kel::System::Ve::Internal

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::AccessDeniedException;
using Exceptions::AlreadyExistsException;
using Exceptions::InvalidPathException;
using Exceptions::NotExistException;
using Exceptions::VeException;

namespace {

constexpr char pathExists[] = "Path '{0}' already exists.";
constexpr char pathMissing[] = "Path '{0}' does not exist.";
constexpr char syncFailed[] = "{0}: Could not synchronize changes to disk. Error {1}.";

void CheckWrites(IFileService::FileAccess access, const char* mode) {
    if (access == IFileService::FileAccess::Read) {
        throw VeException("{0}: FileMode::{1} needs FileAccess::Write or FileAccess:ReadWrite.", "Open", mode);
    }
}

// The mode of fopen: "e" closes the descriptor in other programs, "x" refuses what exists. Null when there is no such
// file mode.
const char* StreamMode(IFileService::FileMode mode, IFileService::FileAccess access) {
    using FileMode = IFileService::FileMode;
    switch (mode) {
        case FileMode::CreateNew:
            CheckWrites(access, "CreateNew");
            return "w+bxe";
        case FileMode::Create:
            CheckWrites(access, "Create");
            return "w+be";
        case FileMode::Open:
            return access == IFileService::FileAccess::Read ? "rbe" : "r+be";
        case FileMode::OpenOrCreate:
            return "r+be";
        case FileMode::Truncate:
            CheckWrites(access, "Truncate");
            // Must exist: it is emptied once that is known.
            return "r+be";
        case FileMode::Append:
            CheckWrites(access, "Append");
            return "a+be";
    }
    return nullptr;
}

// The pairs of exceptions and texts are as they are meant to be.
[[noreturn]] void ThrowNotOpened(const BasicString& path, int errorNumber) {
    switch (errorNumber) {
        case ENOENT:
            throw NotExistException(pathMissing, path);
        case EACCES:
            throw AccessDeniedException(pathExists, path);
        case EEXIST:
            throw AlreadyExistsException(pathExists, path);
        case EINVAL:
            throw InvalidPathException(pathMissing, path);
        default:
            throw VeException("{0}: Could not open file '{1}' (errno={2}).", "Open", path, errorNumber);
    }
}

// Empties nothing: the file may have appeared since it was found missing.
std::FILE* CreateIfMissing(const BasicString& path) {
    FileDescriptor descriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    std::FILE* const stream = descriptor.Get() != -1 ? fdopen(descriptor.Get(), "r+b") : nullptr;
    if (stream != nullptr) {
        descriptor.Release();
    }
    return stream;
}

std::FILE* CheckOpen(std::FILE* stream, const char* operation = __builtin_FUNCTION()) {
    if (stream == nullptr) {
        throw VeException("{0}: this->pFile == nullptr", operation);
    }
    return stream;
}

// Leaves `file` null also when it throws. Part of its callers' code: they are to be in the stack trace.
[[gnu::always_inline]] inline int CloseStream(std::FILE*& file, bool synchronize) {
    // Cancelled half-way, the thread would lose the stream.
    const CancellationDisabled disabled;
    std::FILE* const stream = std::exchange(file, nullptr);
    // Once flushing has failed, fclose knows nothing of what was lost.
    int flushed = 0;
    if (synchronize) {
        flushed = fflush(stream);
        const int descriptor = fileno(stream);
        if (descriptor == -1 || fsync(descriptor) == -1) {
            const int errorNumber = errno;
            static_cast<void>(fclose(stream));
            ThrowFailure(errorNumber,
                         descriptor == -1 ? "{0}: Could not determine filedescriptor to stream." : syncFailed, "Close");
        }
    }
    const int closed = fclose(stream);
    return closed != 0 ? closed : flushed;
}

}  // namespace

FileService::FileService(const BasicString& path, FileMode mode, FileAccess access, bool sync)
    : ServiceObjectBase("FileServiceBase", ServiceType::File, true), syncOnClose(sync) {
    Open(path, mode, access);
}

FileService::~FileService() {
    if (pFile != nullptr) {
        try {
            Close();
        } catch (const std::exception&) {
            // Nobody is left to be told.
        }
    }
}

void FileService::Open(const BasicString& path, FileMode mode, FileAccess access) {
    // The new access holds from here on, also for a stream that stays open because of what is refused below.
    const FileAccess previousAccess = std::exchange(fileAccess, access);
    if (access != FileAccess::Read && access != FileAccess::Write && access != FileAccess::ReadWrite) {
        throw VeException("{0}: Invalid access mode.", __func__);
    }
    const char* const streamMode = StreamMode(mode, access);
    if (mode == FileMode::CreateNew && Exists(path)) {
        throw AlreadyExistsException(pathExists, path);
    }
    // A mode that does not exist leaves open what is open. If nothing is, errno is whatever it was.
    if (streamMode != nullptr) {
        if (pFile != nullptr) {
            CloseStream(pFile, previousAccess != FileAccess::Read && syncOnClose);
        }
        pFile = fopen(path.c_str(), streamMode);
        if (pFile == nullptr && mode == FileMode::OpenOrCreate && errno == ENOENT) {
            pFile = CreateIfMissing(path);
        }
        if (pFile != nullptr && mode == FileMode::Truncate) {
            Close();
            pFile = fopen(path.c_str(), "w+be");
        }
    }
    if (pFile == nullptr) {
        ThrowNotOpened(path, errno);
    }
}

unsigned int FileService::Read(unsigned char* buffer, unsigned int /*offset*/, unsigned int count) {
    return static_cast<unsigned int>(fread(buffer, 1, count, CheckOpen(pFile)));
}

unsigned int FileService::Write(const unsigned char* buffer, unsigned int /*offset*/, unsigned int count) {
    return static_cast<unsigned int>(fwrite(buffer, 1, count, CheckOpen(pFile)));
}

int FileService::Flush() {
    std::FILE* const stream = CheckOpen(pFile);
    return fileAccess == FileAccess::Read ? EOF : fflush(stream);
}

int FileService::Close() {
    CheckOpen(pFile);
    return CloseStream(pFile, fileAccess != FileAccess::Read && syncOnClose);
}

int FileService::Tell() {
    const long position = ftell(CheckOpen(pFile));
    if (position == -1 || position > INT_MAX) {
        const int errorNumber = position == -1 ? errno : EOVERFLOW;
        throw VeException("Could not retrieve current position. Error: {0} ({1}).", ErrorText(errorNumber),
                          errorNumber);
    }
    return static_cast<int>(position);
}

int FileService::Seek(unsigned int offset, SeekOrigin origin) {
    if (pFile == nullptr) {
        throw VeException("{0}", __func__);
    }
    if (offset > INT_MAX) {
        throw VeException("{0}: Offset out of range. {0}", __func__);
    }
    // It flushes, which is a cancellation point. The compiler takes fseek for one that throws nothing, so that a thread
    // that is cancelled in there would end the process.
    const CancellationDisabled disabled;
    const int whence = origin == SeekOrigin::Begin ? SEEK_SET : origin == SeekOrigin::Current ? SEEK_CUR : SEEK_END;
    if (fseek(pFile, static_cast<long>(offset), whence) != 0) {
        throw VeException("{0}", __func__);
    }
    return Tell();
}

bool FileService::Exists(const BasicString& path) {
    struct stat status {};
    // Where the time has 32 bits, a file of a later time than these can tell is there all the same.
    return stat(path.c_str(), &status) == 0 || errno == EOVERFLOW;
}

bool FileService::Delete(const BasicString& path) { return remove(path.c_str()) == 0; }

void FileService::SyncAll() { sync(); }

int FileService::Sync(const BasicString& path) {
    // Without blocking: nobody may ever open the other end of a FIFO.
    FileDescriptor descriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (descriptor.Get() == -1) {
        const int errorNumber = errno;
        throw VeException("{0}: Could not determine filedescriptor to file '{1}'. Error {2}.", __func__, path,
                          ErrorText(errorNumber));
    }
    CheckErrno(fsync(descriptor.Get()), syncFailed);
    return CloseDescriptor(descriptor.Release());
}

int FileService::MapSystemErrorCode(unsigned int code) {
    switch (code) {
        case 0:
            return 0;
        case ENOENT:
            return 3;
        case EACCES:
            return 5;
        case EEXIST:
            return 4;
        case ENOSPC:
            return 6;
        default:
            return 1;
    }
}

}  // namespace Kel::System::Ve::Internal::Linux
