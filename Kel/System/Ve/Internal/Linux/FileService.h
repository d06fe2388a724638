#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/FileServiceBase.h>

#include <cstdio>

namespace Kel::System::Ve::Internal::Linux {

/// The file service on Linux. Files that are created can be used by all, less the process's umask. The descriptor is
/// closed in programs that this process starts.
class KEL_API FileService final : public FileServiceBase {
public:
    /// Opens a file, see `Open`. `sync` has Close wait until the data is on the disk.
    FileService(const BasicString& path, FileMode mode, FileAccess access, bool sync);

    /// Closes the file if it is open. What fails there is not told: call Close to know.
    ~FileService() override;

    unsigned int Read(unsigned char* buffer, unsigned int offset, unsigned int count) override;
    unsigned int Write(const unsigned char* buffer, unsigned int offset, unsigned int count) override;
    int Seek(unsigned int offset, SeekOrigin origin) override;
    int Flush() override;
    int Close() override;

    /// Opens a file; the one that is open is closed before, as Close would do it, but what Close would return is not
    /// told. When the arguments are refused, it stays open. Throws NotExistException,
    /// AlreadyExistsException, AccessDeniedException, InvalidPathException, and VeException for what else can fail.
    void Open(const BasicString& path, FileMode mode, FileAccess access);

    /// Returns the position in the file (ftell). Throws VeException also when it is beyond 2^31 - 1.
    int Tell();

    // As in FileServiceBase.
    static bool Exists(const BasicString& path);
    static bool Delete(const BasicString& path);
    static void SyncAll();
    static int Sync(const BasicString& path);
    static int MapSystemErrorCode(unsigned int code);

private:
    // Null when there is none.
    std::FILE* pFile = nullptr;
    FileAccess fileAccess{};
    bool syncOnClose;
};

}  // namespace Kel::System::Ve::Internal::Linux
