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
    const std::string denied = "AccessDeniedException: Path '" + path + "' already exists.";
    const std::string exists = "AlreadyExistsException: Path '" + path + "' already exists.";
};

TEST_F(FileTest, ModesAndAccesses) {
    const std::string missing = "NotExistException: Path '" + path + "' does not exist.";
    const auto refused = [](const std::string& mode) {
        return "VeException: Open: FileMode::" + mode + " needs FileAccess::Write or FileAccess:ReadWrite.";
    };
    // What comes of opening a missing file, or one that holds "old file", and writing "new" where that is possible: the
    // contents after that, or the exception, which leaves the file alone. First for reading only: missing, old; then
    // for writing, or both: missing, old.
    const std::pair<int, std::array<std::string, 4>> table[] = {
        {1, {refused("CreateNew"), refused("CreateNew"), "new", exists}},
        {2, {refused("Create"), refused("Create"), "new", "new"}},
        {3, {missing, "old file", missing, "new file"}},
        {4, {"new", "new file", "new", "new file"}},
        {5, {refused("Truncate"), refused("Truncate"), missing, "new"}},
        {6, {refused("Append"), refused("Append"), "new", "old filenew"}},
    };
    for (const auto& [mode, outcomes] : table) {
        for (const int access : {1, 2, 3}) {
            SCOPED_TRACE(std::to_string(mode) + ", " + std::to_string(access));
            const Operation open([&, fileMode = static_cast<FileMode>(mode)] {
                const int descriptor = NextDescriptor();
                const auto file = Make(fileMode, static_cast<FileAccess>(access));
                EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
                Write(*file, "new");
                file->Seek(0, SeekOrigin::Begin);
                return Read(*file);
            });
            FileServiceBase::Delete(path);
            EXPECT_TRUE(ComesTo(open, outcomes[access == 1 ? 0 : 2]));
            folder.Write(name, "old file");
            const std::string& ofOld = outcomes[access == 1 ? 1 : 3];
            EXPECT_TRUE(ComesTo(open, ofOld));
            EXPECT_EQ(Content(), ofOld.find("Exception") != std::string::npos ? "old file" : ofOld);
        }
    }
}

TEST_F(FileTest, ReadsWritesAndSeeks) {
    const auto file = Make(FileMode::Create, FileAccess::ReadWrite);
    EXPECT_EQ(Write(*file, "0123456789"), 10U);
    // It flushes, as closing does.
    EXPECT_TRUE(HasNoCancellationPoint([&] { EXPECT_EQ(file->Seek(2, SeekOrigin::Begin), 2); }));
    EXPECT_EQ(file->Seek(1, SeekOrigin::Current), 3);
    EXPECT_EQ(Read(*file), "3456789");
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
    EXPECT_TRUE(HasNoCancellationPoint([&] { EXPECT_NE(full->Close(), 0); }));
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
        {"fsync", close, "VeException: Close: Could not synchronize changes to disk. Error Permission denied."},
        // The destructor tells nobody.
        {"fsync", [&] { opened(); }, "done"},
        {"fseek", seek, "VeException: Seek"},
        {"ftell", seek, "VeException: Could not retrieve current position. Error: Permission denied (13)."},
        {"open", sync,
         "VeException: Sync: Could not determine filedescriptor to file '" + path + "'. Error Permission denied."},
        {"fsync", sync, "VeException: Sync: Could not synchronize changes to disk. Error Permission denied."},
        {"sync", &FileServiceBase::SyncAll, "done"},
        // As a 32-bit time cannot tell it.
        {"stat", [this] { return FileServiceBase::Exists(path); }, "true", 0, EOVERFLOW},
    });
    FileServiceBase::Delete(path);
    ExpectFailures({{"open", open, denied}, {"fdopen", open, denied}});
}

TEST_F(FileTest, OpeningAgainClosesWhatWasOpenAndSynchronisesWhatWasWritten) {
    folder.Write(name, "old");
    std::string synchronised;
    const Interposition call("fsync", [&](const auto& /*arguments*/) {
        synchronised += Content();
        return 0;
    });
    FileService file(path, FileMode::Open, FileAccess::Read, true);
    file.Open(path, FileMode::Open, FileAccess::Write);
    Write(file, "new");
    // The access holds also when the rest is refused.
    EXPECT_THROW(file.Open(path, FileMode::Create, FileAccess::Read), VeException);
    EXPECT_EQ(file.Flush(), EOF);
    // No mode, nothing done.
    file.Open(path, static_cast<FileMode>(0), FileAccess::Write);
    EXPECT_EQ(file.Tell(), 3);
    file.Open(path, FileMode::Open, FileAccess::Read);
    file.Close();
    Make(FileMode::Open, FileAccess::Write);
    EXPECT_EQ(synchronised, "new");
    const auto openForNothing = [&] { file.Open(path, FileMode::Open, static_cast<FileAccess>(0)); };
    EXPECT_TRUE(ComesTo(openForNothing, "VeException: Open: Invalid access mode."));
    EXPECT_TRUE(ComesTo([&] { Read(file); }, "VeException: Read: this->pFile == nullptr"));
    EXPECT_TRUE(ComesTo([&] { Write(file, "x"); }, "VeException: Write: this->pFile == nullptr"));
    EXPECT_TRUE(ComesTo([&] { file.Flush(); }, "VeException: Flush: this->pFile == nullptr"));
    EXPECT_TRUE(ComesTo([&] { file.Tell(); }, "VeException: Tell: this->pFile == nullptr"));
    EXPECT_TRUE(ComesTo([&] { file.Close(); }, "VeException: Close: this->pFile == nullptr"));
    EXPECT_TRUE(ComesTo([&] { file.Seek(0x80000000, SeekOrigin::Begin); }, "VeException: Seek"));
}

TEST_F(FileTest, PathsAreLookedForDeletedAndSynchronised) {
    EXPECT_FALSE(FileServiceBase::Delete(path));
    const auto sync = [this] { EXPECT_EQ(FileServiceBase::Sync(folder / ""), 0); };
    EXPECT_NE(CallsOf("open", sync)[0][1] & O_CLOEXEC, 0);
    EXPECT_EQ(CallsOf("close", sync).size(), 1U);
    std::filesystem::create_directory(folder / "folder");
    EXPECT_TRUE(FileServiceBase::Delete(folder / "folder"));
    std::filesystem::create_symlink("nowhere", std::string(path));
    EXPECT_FALSE(FileServiceBase::Exists(path));
    EXPECT_TRUE(FileServiceBase::Delete(path));
    // Less the process's umask.
    EXPECT_EQ(CallsOf("open", [this] { Make(FileMode::OpenOrCreate, FileAccess::Read); })[0][2], 0666);
    // Nobody opens its other end.
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    EXPECT_THROW(FileServiceBase::Sync(folder / "fifo"), VeException);
}

TEST(FileErrorTest, SystemErrorsHaveClasses) {
    for (const auto& [code, errorClass] :
         {std::pair(0, 0), {ENOENT, 3}, {EEXIST, 4}, {EACCES, 5}, {ENOSPC, 6}, {EPERM, 1}, {29, 1}}) {
        EXPECT_EQ(FileServiceBase::MapSystemErrorCode(static_cast<unsigned int>(code)), errorClass) << code;
    }
}

}  // namespace
