#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// An open file, as a buffered stream of bytes (fopen). Several threads may read, write, flush and seek it, each
/// operation as a whole, but the position that Seek returns may be where another has moved it; whoever closes or
/// deletes it sees to it that no other operation is in progress. Between writing and reading, seek or flush. Opening,
/// and Read, Write and Flush when they reach the system, may wait for it and are cancellation points; Seek, Close and
/// deleting are none. Deleting closes, and tells no failure. Once the file is closed, everything throws VeException.
///
/// Opening throws NotExistException (ENOENT), AlreadyExistsException (EEXIST), AccessDeniedException (EACCES),
/// InvalidPathException (EINVAL) and VeException for anything else, such as a mode that needs write access.
class KEL_API IFileService : public virtual IServiceObject {
public:
    /// All but `Open` and `OpenOrCreate` need write access. Any other value opens nothing.
    enum class FileMode : int {
        CreateNew = 1,     ///< creates; AlreadyExistsException when it exists, be it a symbolic link to nothing
        Create = 2,        ///< creates, or empties what exists
        Open = 3,          ///< NotExistException when it does not exist
        OpenOrCreate = 4,  ///< always as `ReadWrite`, whatever the access
        Truncate = 5,      ///< empties; NotExistException when it does not exist
        Append = 6,        ///< creates, or opens; all writing goes to the end
    };

    /// Both `Write` and `ReadWrite` allow reading, and need the right to read the file as well as that to write it. Any
    /// other value is refused with VeException.
    enum class FileAccess : int {
        Read = 1,       ///< nothing is written, unless opened with `OpenOrCreate`
        Write = 2,      ///< as `ReadWrite`
        ReadWrite = 3,  ///< to read and to write
    };

    /// Any other value is as `End`.
    enum class SeekOrigin : int {
        Begin = 1,    ///< the first byte
        Current = 2,  ///< where the next byte would be read or written
        End = 3,      ///< behind the last byte
    };

    /// Reads up to `count` bytes into `buffer`, from its beginning: `offset` has no effect (fread). Returns how many;
    /// fewer at the end of the file or on an error. What is appended after the end was met is read after a Seek.
    virtual unsigned int Read(unsigned char* buffer, unsigned int offset, unsigned int count) = 0;

    /// Writes `count` bytes of `buffer`, from its beginning: `offset` has no effect (fwrite). Returns how many; fewer
    /// on an error.
    virtual unsigned int Write(const unsigned char* buffer, unsigned int offset, unsigned int count) = 0;

    /// Moves to `offset` bytes, below 2^31, behind the origin (fseek). Returns the new position. Throws VeException
    /// also when that is beyond 2^31 - 1.
    virtual int Seek(unsigned int offset, SeekOrigin origin) = 0;

    /// Hands what was written to the system (fflush). Returns 0; non-zero on failure, and when opened with `Read`.
    virtual int Flush() = 0;

    /// Closes the file (fclose). Returns 0, non-zero when what was written could not be handed to the system. If opened
    /// to be synchronised, and not with `Read`, waits until the data is on the disk (fsync) and throws VeException when
    /// that fails; the file is closed all the same. Throws VeException when closed already.
    virtual int Close() = 0;
};

}  // namespace Kel::System::Ve
