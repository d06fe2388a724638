#include "support/Test.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

using FileMode = IFileService::FileMode;
using FileAccess = IFileService::FileAccess;
using SeekOrigin = IFileService::SeekOrigin;

class FileTest : public FactoryTest {
protected:
    std::unique_ptr<IFileService> Make(FileMode mode, FileAccess access, bool syncOnClose = false) {
        return Own(factory->CreateFile(path, mode, access, syncOnClose));
    }

    // The offset is ignored.
    static unsigned int Write(IFileService& file, const std::string& text) {
        return file.Write(reinterpret_cast<const unsigned char*>(text.data()), 99,
                          static_cast<unsigned int>(text.size()));
    }

    static std::string Read(IFileService& file) {
        char buffer[16];
        return {buffer, file.Read(reinterpret_cast<unsigned char*>(buffer), 99, sizeof buffer)};
    }

    std::string Content() const { return folder.Read(name); }

    const TemporaryFolder folder;
    const std::string name = "file {with} braces";
    const BasicString path = folder / name;
    const std::string missing = "NotExistException: Path '" + path + "' does not exist.";
    const std::string denied = "AccessDeniedException: Path '" + path + "' already exists.";
    const std::string notSynchronised = "Could not synchronize changes to disk. Error ";
    const std::string exists = "AlreadyExistsException: Path '" + path + "' already exists.";
};

TEST_F(FileTest, ModesAndAccesses) {
    const auto refused = [](const std::string& mode) {
        return "VeException: Open: FileMode::" + mode + " needs FileAccess::Write or FileAccess:ReadWrite.";
    };
    const std::string invalid = "VeException: Open: Invalid access mode.";
    // What comes of opening a missing file, or one that holds "old file", and writing "new" where that is possible: the
    // contents after that, or the exception, which leaves the file alone.
    struct Row {
        int mode;
        std::vector<int> accesses;
        std::string ofMissing;
        std::string ofOld;
    };
    const Row table[] = {{1, {1}, refused("CreateNew"), refused("CreateNew")},
                         {2, {1}, refused("Create"), refused("Create")},
                         {3, {1}, missing, "old file"},
                         {4, {1}, "new", "new file"},
                         {5, {1}, refused("Truncate"), refused("Truncate")},
                         {6, {1}, refused("Append"), refused("Append")},
                         {1, {2, 3}, "new", exists},
                         {2, {2, 3}, "new", "new"},
                         {3, {2, 3}, missing, "new file"},
                         {4, {2, 3}, "new", "new file"},
                         {5, {2, 3}, missing, "new"},
                         {6, {2, 3}, "new", "old filenew"},
                         {4, {0, 4}, invalid, invalid}};
    for (const Row& row : table) {
        for (const int access : row.accesses) {
            SCOPED_TRACE(std::to_string(row.mode) + ", " + std::to_string(access));
            const Operation open([&] {
                const int descriptor = NextDescriptor();
                const auto file = Make(static_cast<FileMode>(row.mode), static_cast<FileAccess>(access));
                EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
                Write(*file, "new");
                EXPECT_EQ(file->Close(), 0);
                return Content();
            });
            FileServiceBase::Delete(path);
            EXPECT_TRUE(ComesTo(open, row.ofMissing));
            folder.Write(name, "old file");
            EXPECT_TRUE(ComesTo(open, row.ofOld));
            EXPECT_EQ(Content(), row.ofOld.find("Exception") != std::string::npos ? "old file" : row.ofOld);
        }
    }
}

TEST_F(FileTest, ReadsWritesAndSeeks) {
    const auto file = Make(FileMode::Create, FileAccess::ReadWrite);
    EXPECT_EQ(Write(*file, "0123456789"), 10U);
    EXPECT_EQ(file->Flush(), 0);
    EXPECT_EQ(Content(), "0123456789");
    EXPECT_EQ(file->Seek(2, SeekOrigin::Begin), 2);
    EXPECT_EQ(Read(*file), "23456789");
    EXPECT_EQ(file->Seek(2, SeekOrigin::Current), 12);
    EXPECT_EQ(file->Seek(1, static_cast<SeekOrigin>(0)), 11);
    EXPECT_TRUE(
        ComesTo([&] { file->Seek(0x80000000, SeekOrigin::Begin); }, "VeException: Seek: Offset out of range. Seek"));
    EXPECT_EQ(file->Seek(0x7FFFFFFF, SeekOrigin::Begin), 0x7FFFFFFF);
    std::filesystem::resize_file(std::string(path), 3LL << 30);
    EXPECT_TRUE(ComesTo([&] { file->Seek(0, SeekOrigin::End); },
                        "VeException: Could not retrieve current position. Error: Value too large for defined data "
                        "type (75)."));
    EXPECT_NE(Make(FileMode::Open, FileAccess::Read)->Flush(), 0);
    // A device that is always full.
    const auto full = Own(factory->CreateFile("/dev/full", FileMode::Open, FileAccess::Write, false));
    Write(*full, "x");
    EXPECT_NE(full->Close(), 0);
}

TEST_F(FileTest, FailuresAreReported) {
    folder.Write(name, "old");
    const auto opened = [this] { return Make(FileMode::Open, FileAccess::ReadWrite, true); };
    const auto open = [this] { return Read(*Make(FileMode::OpenOrCreate, FileAccess::Read)); };
    const auto close = [&] { return opened()->Close(); };
    const auto seek = [&] { opened()->Seek(0, SeekOrigin::Begin); };
    const auto sync = [this] { return FileServiceBase::Sync(path); };
    ExpectFailures({
        {"fopen", open, denied},
        {"fopen", open, exists, 0, EEXIST},
        {"fopen", open, "InvalidPathException: Path '" + path + "' does not exist.", 0, EINVAL},
        {"fopen", open, "VeException: Open: Could not open file '" + path + "' (errno=24).", 0, EMFILE},
        {"fopen", [this] { Make(FileMode::Truncate, FileAccess::Write); }, denied, 1},
        // A file that appears meanwhile is not emptied.
        {"fopen", open, "old", 0, ENOENT},
        {"stat", [this] { Make(FileMode::CreateNew, FileAccess::Write); }, exists},
        {"fflush", [&] { return opened()->Flush(); }, "-1"},
        // What is lost there is told, though all the rest succeeds.
        {"fflush", close, "-1"},
        {"fileno", close, "VeException: Close: Could not determine filedescriptor to stream."},
        {"fsync", close, "VeException: Close: " + notSynchronised + "Permission denied."},
        // The destructor tells nobody.
        {"fsync", [&] { opened(); }, "done"},
        {"fseek", seek, "VeException: Seek"},
        {"ftell", seek, "VeException: Could not retrieve current position. Error: Permission denied (13)."},
        {"open", sync,
         "VeException: Sync: Could not determine filedescriptor to file '" + path + "'. Error Permission denied."},
        {"fsync", sync, "VeException: Sync: " + notSynchronised + "Permission denied."},
        {"sync", &FileServiceBase::SyncAll, "done"},
        // As a 32-bit time cannot tell it.
        {"stat", [this] { return FileServiceBase::Exists(path); }, "true", 0, EOVERFLOW},
    });
    FileServiceBase::Delete(path);
    ExpectFailures({{"open", open, denied}, {"fdopen", open, denied}});
}

TEST_F(FileTest, OpeningAgainClosesWhatWasOpenAndSynchronisesWhatWasWritten) {
    folder.Write(name, "old");
    int synchronisations = 0;
    const Interposition call("fsync", [&](const auto& /*arguments*/) {
        EXPECT_EQ(Content(), "new");
        ++synchronisations;
        return 0;
    });
    FileService file(path, FileMode::Open, FileAccess::Read, true);
    file.Open(path, FileMode::Open, FileAccess::Write);
    EXPECT_EQ(synchronisations, 0);
    Write(file, "new");
    // No mode, nothing done.
    file.Open(path, static_cast<FileMode>(0), FileAccess::Write);
    EXPECT_EQ(file.Tell(), 3);
    file.Open(path, FileMode::Open, FileAccess::Read);
    EXPECT_EQ(synchronisations, 1);
    file.Close();
    Make(FileMode::Open, FileAccess::Write);
    EXPECT_EQ(synchronisations, 1);
    for (const auto& [operation, exception] : {
             std::pair<Operation, std::string>([&] { Read(file); }, "Read: this->pFile == nullptr"),
             {[&] { Write(file, "x"); }, "Write: this->pFile == nullptr"},
             {[&] { file.Flush(); }, "Flush: this->pFile == nullptr"},
             {[&] { file.Tell(); }, "Tell: this->pFile == nullptr"},
             {[&] { file.Close(); }, "Close: this->pFile == nullptr"},
             {[&] { file.Seek(0x80000000, SeekOrigin::Begin); }, "Seek"},
         }) {
        EXPECT_TRUE(ComesTo(operation, "VeException: " + exception));
    }
}

TEST_F(FileTest, PathsAreLookedForDeletedAndSynchronised) {
    EXPECT_FALSE(FileServiceBase::Delete(path));
    EXPECT_TRUE(FileServiceBase::Exists(folder / ""));
    EXPECT_EQ(FileServiceBase::Sync(folder / ""), 0);
    std::filesystem::create_directory(folder / "folder");
    EXPECT_TRUE(FileServiceBase::Delete(folder / "folder"));
    std::filesystem::create_symlink("nowhere", std::string(path));
    EXPECT_FALSE(FileServiceBase::Exists(path));
    EXPECT_TRUE(FileServiceBase::Delete(path));
    // Less the process's umask.
    EXPECT_EQ(CallsOf("open", [this] { Make(FileMode::OpenOrCreate, FileAccess::Read); })[0][2], 0666);
    FileServiceBase::Delete(path);
    // Nobody opens its other end.
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const auto calls = CallsOf("open", [this] {
        EXPECT_TRUE(ComesTo([this] { FileServiceBase::Sync(path); },
                            "VeException: Sync: " + notSynchronised + "Invalid argument."));
    });
    EXPECT_NE(calls[0][1] & O_CLOEXEC, 0);
}

TEST_F(FileTest, ThreadIsNotCancelledWhileItSeeksOrCloses) {
    const auto file = Make(FileMode::Create, FileAccess::ReadWrite);
    Write(*file, "to be flushed");
    EXPECT_TRUE(HasNoCancellationPoint([&] { file->Seek(0, SeekOrigin::Begin); }));
    Write(*file, "to be flushed");
    EXPECT_TRUE(HasNoCancellationPoint([&] { file->Close(); }));
}

TEST(FileErrorTest, SystemErrorsHaveClasses) {
    for (const auto& [code, errorClass] :
         {std::pair(0, 0), {ENOENT, 3}, {EEXIST, 4}, {EACCES, 5}, {ENOSPC, 6}, {EPERM, 1}, {29, 1}}) {
        EXPECT_EQ(FileServiceBase::MapSystemErrorCode(static_cast<unsigned int>(code)), errorClass) << code;
    }
}

}  // namespace
