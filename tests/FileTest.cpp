#include "support/TemporaryFolder.h"
#include "support/Test.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

using FileMode = IFileService::FileMode;
using FileAccess = IFileService::FileAccess;
using SeekOrigin = IFileService::SeekOrigin;

class FileTest : public FactoryTest {
protected:
    std::unique_ptr<IFileService> Make(FileMode mode, FileAccess access, bool syncOnClose = false) {
        return std::unique_ptr<IFileService>(factory->CreateFile(path, mode, access, syncOnClose));
    }

    static unsigned int Write(IFileService& file, const std::string& text) {
        return file.Write(reinterpret_cast<const unsigned char*>(text.data()), 99,
                          static_cast<unsigned int>(text.size()));
    }

    static std::string Read(IFileService& file) {
        char buffer[16];
        return {buffer, file.Read(reinterpret_cast<unsigned char*>(buffer), 99, sizeof buffer)};
    }

    /// The type and the message of what `operation` throws; empty when it throws nothing.
    template <typename Operation>
    static std::string ExceptionOf(Operation&& operation) {
        try {
            operation();
        } catch (const VeException& exception) {
            const BasicString type = RuntimeTypeInfo::GetTypeName(typeid(exception));
            return type.substr(type.rfind(':') + 1) + " " + exception.GetMessage();
        }
        return "";
    }

    void SetContent(const std::string& text) const { std::ofstream(path) << text; }

    std::string Content() const {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static bool Synchronises(const std::function<void()>& operation) {
        return FailingCall::HappensIn(operation, "fsync");
    }

    /// The descriptor of the file, -1 when it is not open.
    int Descriptor() const {
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code closed;
            if (std::filesystem::read_symlink(entry, closed) == std::string(path)) {
                return std::stoi(entry.path().filename());
            }
        }
        return -1;
    }

    const TemporaryFolder folder;
    const BasicString path = folder / "file {with} braces";
};

TEST_F(FileTest, ModesAndAccesses) {
    const std::string needs = " needs FileAccess::Write or FileAccess:ReadWrite.";
    const std::string missing = "NotExistException Path '" + path + "' does not exist.";
    const std::string exists = "AlreadyExistsException Path '" + path + "' already exists.";
    const std::string invalid = "VeException Open: Invalid access mode.";
    // What comes of opening a missing file, or one that holds "old", and writing "new" where that is possible: the
    // contents after that, or the exception, which leaves the file alone.
    const struct {
        int mode;
        int access;
        std::string ofMissing;
        std::string ofOld;
    } table[] = {
        {1, 1, "VeException Open: FileMode::CreateNew" + needs, "VeException Open: FileMode::CreateNew" + needs},
        {1, 2, "new", exists},
        {1, 3, "new", exists},
        {2, 1, "VeException Open: FileMode::Create" + needs, "VeException Open: FileMode::Create" + needs},
        {2, 2, "new", "new"},
        {2, 3, "new", "new"},
        {3, 1, missing, "old file"},
        {3, 2, missing, "new file"},
        {3, 3, missing, "new file"},
        {4, 1, "new", "new file"},
        {4, 2, "new", "new file"},
        {4, 3, "new", "new file"},
        {5, 1, "VeException Open: FileMode::Truncate" + needs, "VeException Open: FileMode::Truncate" + needs},
        {5, 2, missing, "new"},
        {5, 3, missing, "new"},
        {6, 1, "VeException Open: FileMode::Append" + needs, "VeException Open: FileMode::Append" + needs},
        {6, 2, "new", "old filenew"},
        {6, 3, "new", "old filenew"},
        {1, 0, invalid, invalid},
        {7, 4, invalid, invalid}};
    for (const auto& row : table) {
        const auto outcome = [&]() -> std::string {
            const std::string exception = ExceptionOf([&] {
                const auto file = Make(static_cast<FileMode>(row.mode), static_cast<FileAccess>(row.access));
                EXPECT_NE(fcntl(Descriptor(), F_GETFD) & FD_CLOEXEC, 0);
                Write(*file, "new");
                EXPECT_EQ(file->Close(), 0);
            });
            return exception.empty() ? Content() : exception;
        };
        SCOPED_TRACE(std::to_string(row.mode) + ", " + std::to_string(row.access));
        FileServiceBase::Delete(path);
        EXPECT_EQ(outcome(), row.ofMissing);
        EXPECT_EQ(FileServiceBase::Exists(path), row.ofMissing == "new");
        SetContent("old file");
        EXPECT_EQ(outcome(), row.ofOld);
        EXPECT_EQ(Content(), row.ofOld.find("Exception") != std::string::npos ? "old file" : row.ofOld);
    }
}

TEST_F(FileTest, ReadsWritesAndSeeks) {
    const auto file = Make(FileMode::Create, FileAccess::ReadWrite);
    EXPECT_EQ(Write(*file, "0123456789"), 10U);
    EXPECT_EQ(Content(), "");
    EXPECT_EQ(file->Flush(), 0);
    EXPECT_EQ(Content(), "0123456789");
    EXPECT_EQ(file->Seek(2, SeekOrigin::Begin), 2);
    unsigned char two[2];
    EXPECT_EQ(file->Read(two, 0, 2), 2U);
    EXPECT_EQ(file->Seek(3, SeekOrigin::Current), 7);
    EXPECT_EQ(Read(*file), "789");
    EXPECT_EQ(Read(*file), "");
    EXPECT_EQ(file->Seek(5, SeekOrigin::End), 15);
    EXPECT_EQ(file->Seek(1, static_cast<SeekOrigin>(0)), 11);
    EXPECT_TRUE(
        Throws<VeException>([&] { file->Seek(0x80000000, SeekOrigin::Begin); }, "Seek: Offset out of range. Seek"));
    EXPECT_EQ(file->Seek(0x7FFFFFFF, SeekOrigin::Begin), 0x7FFFFFFF);

    const auto reader = Make(FileMode::Open, FileAccess::Read);
    EXPECT_NE(reader->Flush(), 0);
    EXPECT_EQ(Write(*reader, "x"), 0U);
}

TEST_F(FileTest, KnowsLargeFilesAndLateTimes) {
    SetContent("");
    {
        // As a 32-bit time cannot tell it.
        const FailingCall call("stat64", -1, EOVERFLOW);
        EXPECT_TRUE(FileServiceBase::Exists(path));
    }
    std::filesystem::resize_file(std::string(path), 3LL << 30);
    EXPECT_TRUE(FileServiceBase::Exists(path));
    const auto file = Make(FileMode::Open, FileAccess::Read);
    EXPECT_TRUE(
        Throws<VeException>([&] { file->Seek(0, SeekOrigin::End); },
                            "Could not retrieve current position. Error: Value too large for defined data type (75)."));
}

TEST_F(FileTest, ClosedFileRefusesEverything) {
    FileService file(path, FileMode::Create, FileAccess::ReadWrite, true);
    file.Close();
    const struct {
        std::function<void()> operation;
        std::string message;
    } table[] = {{[&] { Read(file); }, "Read: this->pFile == nullptr"},
                 {[&] { Write(file, "x"); }, "Write: this->pFile == nullptr"},
                 {[&] { file.Flush(); }, "Flush: this->pFile == nullptr"},
                 {[&] { file.Close(); }, "Close: this->pFile == nullptr"},
                 {[&] { file.Tell(); }, "Tell: this->pFile == nullptr"},
                 {[&] { file.Seek(0x80000000, SeekOrigin::Begin); }, "Seek"}};
    for (const auto& row : table) {
        EXPECT_TRUE(Throws<VeException>(row.operation, row.message));
    }
}

TEST_F(FileTest, SynchronisesOnCloseWhatMayBeWritten) {
    const std::string failed = "Close: Could not synchronize changes to disk. Error Permission denied.";
    const struct {
        FileAccess access;
        bool syncOnClose;
        bool synchronises;
    } table[] = {{FileAccess::Read, true, false},
                 {FileAccess::Write, false, false},
                 {FileAccess::Write, true, true},
                 {FileAccess::ReadWrite, true, true}};
    SetContent("old");
    for (const auto& row : table) {
        const auto file = Make(FileMode::Open, row.access, row.syncOnClose);
        EXPECT_EQ(Synchronises([&] { EXPECT_EQ(file->Close(), 0); }), row.synchronises);
    }
    for (const auto& [function, message] :
         {std::pair("fsync", failed), std::pair("fileno", std::string("Close: Could not determine filedescriptor "
                                                                      "to stream."))}) {
        const auto doomed = Make(FileMode::Open, FileAccess::Write, true);
        Write(*doomed, "new");
        const FailingCall call(function, -1, EACCES);
        EXPECT_TRUE(Throws<VeException>([&] { doomed->Close(); }, message));
        EXPECT_EQ(Content(), "new");
        EXPECT_TRUE(Throws<VeException>([&] { doomed->Close(); }, "Close: this->pFile == nullptr"));
    }
}

TEST_F(FileTest, FullDiskIsToldByClosing) {
    // A device that is always full, and cannot be synchronised.
    for (const bool syncOnClose : {false, true}) {
        const std::unique_ptr<IFileService> full(
            factory->CreateFile("/dev/full", FileMode::Open, FileAccess::Write, syncOnClose));
        Write(*full, "x");
        if (syncOnClose) {
            EXPECT_TRUE(Throws<VeException>([&] { full->Close(); },
                                            "Close: Could not synchronize changes to disk. Error Invalid argument."));
        } else {
            EXPECT_NE(full->Flush(), 0);
            Write(*full, "x");
            EXPECT_NE(full->Close(), 0);
        }
        EXPECT_TRUE(Throws<VeException>([&] { full->Close(); }, "Close: this->pFile == nullptr"));
    }
    // No room for another byte, as on a full disk.
    Child child([this] {
        static_cast<void>(signal(SIGXFSZ, SIG_IGN));
        const rlimit nothing{0, 0};
        setrlimit(RLIMIT_FSIZE, &nothing);
        const auto file = Make(FileMode::Create, FileAccess::Write, true);
        Write(*file, "x");
        return file->Close() != 0 && Descriptor() == -1 ? 0 : 1;
    });
    EXPECT_EQ(child.Wait(), 0);
    // The destructor tells nobody.
    const std::unique_ptr<IFileService> full(factory->CreateFile("/dev/full", FileMode::Open, FileAccess::Write, true));
    Write(*full, "x");
}

TEST_F(FileTest, OrdinaryUserIsDenied) {
    SetContent("old");
    std::filesystem::permissions(std::string(path), std::filesystem::perms::owner_read);
    Child child([this] {
        // The folder stays out of the user's reach.
        EXPECT_EQ(chmod((folder / "").c_str(), 0755), 0);
        BecomeOrdinaryUser(path);
        const std::string denied = "Path '" + path + "' already exists.";
        EXPECT_EQ(Read(*Make(FileMode::Open, FileAccess::Read)), "old");
        for (const auto mode :
             {FileMode::Create, FileMode::Open, FileMode::OpenOrCreate, FileMode::Truncate, FileMode::Append}) {
            EXPECT_TRUE(Throws<AccessDeniedException>([&] { Make(mode, FileAccess::Write); }, denied));
        }
        EXPECT_TRUE(Throws<AlreadyExistsException>([&] { Make(FileMode::CreateNew, FileAccess::Write); }, denied));
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(Content(), "old");
}

TEST_F(FileTest, FailureToOpenIsClassified) {
    const struct {
        int error;
        std::string exception;
    } table[] = {{ENOENT, "NotExistException Path '" + path + "' does not exist."},
                 {EINVAL, "InvalidPathException Path '" + path + "' does not exist."},
                 {EMFILE, "VeException Open: Could not open file '" + path + "' (errno=24)."}};
    for (const auto& row : table) {
        const FailingCall call("fopen64", 0, row.error);
        EXPECT_EQ(ExceptionOf([this] { Make(FileMode::Open, FileAccess::Read); }), row.exception);
    }
    errno = ENOENT;
    EXPECT_EQ(ExceptionOf([this] { Make(static_cast<FileMode>(7), FileAccess::Read); }), table[0].exception);
    EXPECT_TRUE(Throws<VeException>(
        [this] { factory->CreateFile("/tmp", FileMode::OpenOrCreate, FileAccess::ReadWrite, false); },
        "Open: Could not open file '/tmp' (errno=21)."));
}

TEST_F(FileTest, FileThatAppearsMeanwhileIsNotEmptied) {
    {
        const FailingCall call("fopen64", [this] { SetContent("theirs"); });
        EXPECT_TRUE(Throws<AlreadyExistsException>([this] { Make(FileMode::CreateNew, FileAccess::Write); },
                                                   "Path '" + path + "' already exists."));
    }
    EXPECT_EQ(Content(), "theirs");
    FileServiceBase::Delete(path);
    {
        const FailingCall call("open64", [this] { SetContent("theirs"); });
        EXPECT_EQ(Read(*Make(FileMode::OpenOrCreate, FileAccess::ReadWrite)), "theirs");
    }
    FileServiceBase::Delete(path);
    {
        const mode_t mask = umask(0);
        Make(FileMode::OpenOrCreate, FileAccess::Read);
        umask(mask);
        struct stat status {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0666U);
    }
    FileServiceBase::Delete(path);
    const FailingCall call("fdopen", 0, ENOMEM);
    EXPECT_TRUE(Throws<VeException>([this] { Make(FileMode::OpenOrCreate, FileAccess::Read); },
                                    "Open: Could not open file '" + path + "' (errno=12)."));
}

TEST_F(FileTest, OpeningAgainClosesWhatWasOpen) {
    SetContent("first");
    FileService file(path, FileMode::Open, FileAccess::Write, false);
    Write(file, "FIRST");
    const BasicString second = folder / "second";
    file.Open(second, FileMode::CreateNew, FileAccess::Write);
    EXPECT_EQ(Content(), "FIRST");
    EXPECT_EQ(Descriptor(), -1);
    Write(file, "second");
    EXPECT_EQ(file.Tell(), 6);
    // No mode, nothing done.
    file.Open(path, static_cast<FileMode>(0), FileAccess::Write);
    EXPECT_EQ(file.Tell(), 6);
    EXPECT_TRUE(Throws<NotExistException>([&] { file.Open(folder / "no/file", FileMode::Open, FileAccess::Read); },
                                          "Path '" + folder / "no/file" + "' does not exist."));
    EXPECT_TRUE(Throws<VeException>([&] { file.Tell(); }, "Tell: this->pFile == nullptr"));
}

TEST_F(FileTest, OpeningAgainSynchronisesByTheAccessThatWas) {
    SetContent("x");
    FileService file(path, FileMode::Open, FileAccess::Read, true);
    EXPECT_FALSE(Synchronises([&] { file.Open(path, FileMode::Open, FileAccess::Write); }));
    EXPECT_TRUE(Synchronises([&] { file.Open(path, FileMode::Open, FileAccess::Read); }));
    EXPECT_FALSE(Synchronises([&] { file.Close(); }));
}

TEST_F(FileTest, PathsAreSynchronisedDeletedAndLookedFor) {
    const std::string unknown = "Sync: Could not determine filedescriptor to file '" + path + "'. Error ";
    EXPECT_TRUE(Throws<VeException>([this] { FileServiceBase::Sync(path); }, unknown + "No such file or directory."));
    EXPECT_FALSE(FileServiceBase::Exists(path));
    EXPECT_FALSE(FileServiceBase::Delete(path));
    EXPECT_TRUE(FileServiceBase::Exists(folder / ""));
    std::filesystem::create_directory(folder / "folder");
    EXPECT_TRUE(FileServiceBase::Delete(folder / "folder"));
    std::filesystem::create_symlink("nowhere", std::string(path));
    EXPECT_FALSE(FileServiceBase::Exists(path));
    EXPECT_TRUE(FileServiceBase::Delete(path));
    SetContent("x");
    {
        const FailingCall call("fsync", [this] { EXPECT_NE(fcntl(Descriptor(), F_GETFD) & FD_CLOEXEC, 0); });
        EXPECT_EQ(FileServiceBase::Sync(path), 0);
    }
    EXPECT_EQ(FileServiceBase::Sync(folder / ""), 0);
    FileServiceBase::SyncAll();
    for (const auto& [call, result] : {std::pair("fsync", -1), std::pair("close", -1)}) {
        const FailingCall failing(call, result, EACCES);
        if (call == std::string("close")) {
            // The kernel has closed it all the same.
            EXPECT_EQ(FileServiceBase::Sync(path), -1);
            close(Descriptor());
        } else {
            EXPECT_TRUE(Throws<VeException>([this] { FileServiceBase::Sync(path); },
                                            "Sync: Could not synchronize changes to disk. Error Permission denied."));
        }
    }
    EXPECT_TRUE(FileServiceBase::Delete(path));
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_TRUE(Throws<VeException>([this] { FileServiceBase::Sync(path); },
                                    "Sync: Could not synchronize changes to disk. Error Invalid argument."));
}

TEST_F(FileTest, FailedSeeksAreReported) {
    FileService file(path, FileMode::Create, FileAccess::Write, false);
    ExpectFailures(Told::ByErrno, {{"fseek", [&] { file.Seek(0, SeekOrigin::Begin); }, "Seek"},
                                   {"ftell", [&] { file.Seek(0, SeekOrigin::Begin); },
                                    "Could not retrieve current position. Error: {} (13)."}});
}

TEST(FileErrorTest, SystemErrorsHaveClasses) {
    for (const auto& [code, errorClass] : {std::pair(0, 0),
                                           {ENOENT, 3},
                                           {EEXIST, 4},
                                           {EACCES, 5},
                                           {ENOSPC, 6},
                                           {EPERM, 1},
                                           {EIO, 1},
                                           {EROFS, 1},
                                           {999, 1}}) {
        EXPECT_EQ(FileServiceBase::MapSystemErrorCode(static_cast<unsigned int>(code)), errorClass) << code;
    }
}

}  // namespace
