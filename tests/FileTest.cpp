#include "support/Test.h"

#include <fcntl.h>
#include <sys/resource.h>
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

    void SetContent(const std::string& text) const { folder.Write(name, text); }
    std::string Content() const { return folder.Read(name); }

    static std::size_t CountSynchronisations(const std::function<void()>& operation) {
        return CallsOf("fsync", operation).size();
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
    const std::string name = "file {with} braces";
    const BasicString path = folder / name;
    const std::string missing = "NotExistException: Path '" + path + "' does not exist.";
    const std::string denied = "AccessDeniedException: Path '" + path + "' already exists.";
    const std::string exists = "AlreadyExistsException: Path '" + path + "' already exists.";
};

TEST_F(FileTest, ModesAndAccesses) {
    const std::string refused = "VeException: Open: FileMode::";
    const std::string needs = " needs FileAccess::Write or FileAccess:ReadWrite.";
    const std::string invalid = "VeException: Open: Invalid access mode.";
    // What comes of opening a missing file, or one that holds "old file", and writing "new" where that is possible: the
    // contents after that, or the exception, which leaves the file alone.
    struct Row {
        int mode;
        int access;
        std::string ofMissing;
        std::string ofOld;
    };
    std::vector<Row> table = {{1, 1, refused + "CreateNew" + needs, refused + "CreateNew" + needs},
                              {2, 1, refused + "Create" + needs, refused + "Create" + needs},
                              {3, 1, missing, "old file"},
                              {4, 1, "new", "new file"},
                              {5, 1, refused + "Truncate" + needs, refused + "Truncate" + needs},
                              {6, 1, refused + "Append" + needs, refused + "Append" + needs},
                              {1, 0, invalid, invalid},
                              {7, 4, invalid, invalid}};
    for (const int access : {2, 3}) {
        table.insert(table.end(), {{1, access, "new", exists},
                                   {2, access, "new", "new"},
                                   {3, access, missing, "new file"},
                                   {4, access, "new", "new file"},
                                   {5, access, missing, "new"},
                                   {6, access, "new", "old filenew"}});
    }
    const mode_t mask = umask(0);
    for (const Row& row : table) {
        const Operation open([&] {
            const auto file = Make(static_cast<FileMode>(row.mode), static_cast<FileAccess>(row.access));
            EXPECT_NE(fcntl(Descriptor(), F_GETFD) & FD_CLOEXEC, 0);
            Write(*file, "new");
            EXPECT_EQ(file->Close(), 0);
            return Content();
        });
        SCOPED_TRACE(std::to_string(row.mode) + ", " + std::to_string(row.access));
        FileServiceBase::Delete(path);
        EXPECT_TRUE(ComesTo(open, row.ofMissing));
        struct stat status {};
        EXPECT_EQ(stat(path.c_str(), &status) == 0, row.ofMissing == "new");
        EXPECT_EQ(status.st_mode & 0777U, row.ofMissing == "new" ? 0666U : 0U);
        SetContent("old file");
        EXPECT_TRUE(ComesTo(open, row.ofOld));
        EXPECT_EQ(Content(), row.ofOld.find("Exception") != std::string::npos ? "old file" : row.ofOld);
    }
    umask(mask);
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
        ComesTo([&] { file->Seek(0x80000000, SeekOrigin::Begin); }, "VeException: Seek: Offset out of range. Seek"));
    EXPECT_EQ(file->Seek(0x7FFFFFFF, SeekOrigin::Begin), 0x7FFFFFFF);
    std::filesystem::resize_file(std::string(path), 3LL << 30);
    EXPECT_TRUE(FileServiceBase::Exists(path));
    EXPECT_TRUE(ComesTo([&] { file->Seek(0, SeekOrigin::End); },
                        "VeException: Could not retrieve current position. Error: Value too large for defined data "
                        "type (75)."));

    const auto reader = Make(FileMode::Open, FileAccess::Read);
    EXPECT_NE(reader->Flush(), 0);
    EXPECT_EQ(Write(*reader, "x"), 0U);
}

TEST_F(FileTest, FailuresAreReported) {
    SetContent("old");
    const auto opened = [this] { return Make(FileMode::Open, FileAccess::ReadWrite, true); };
    const auto open = [this] { return factory->CreateFile(path, FileMode::Open, FileAccess::Read, false); };
    const auto close = [&] { opened()->Close(); };
    const auto sync = [this] { return FileServiceBase::Sync(path); };
    ExpectFailures({
        {"fopen", open, missing, 0, ENOENT},
        {"fopen", open, denied},
        {"fopen", open, exists, 0, EEXIST},
        {"fopen", open, "InvalidPathException: Path '" + path + "' does not exist.", 0, EINVAL},
        {"fopen", open, "VeException: Open: Could not open file '" + path + "' (errno=24).", 0, EMFILE},
        {"fileno", close, "VeException: Close: Could not determine filedescriptor to stream."},
        {"fsync", close, "VeException: Close: Could not synchronize changes to disk. Error Permission denied."},
        // The destructor tells nobody.
        {"fsync", [&] { opened().reset(); }, "done"},
        {"fseek", [&] { opened()->Seek(0, SeekOrigin::Begin); }, "VeException: Seek"},
        {"ftell", [&] { opened()->Seek(0, SeekOrigin::Begin); },
         "VeException: Could not retrieve current position. Error: Permission denied (13)."},
        {"open", sync,
         "VeException: Sync: Could not determine filedescriptor to file '" + path + "'. Error Permission denied."},
        {"fsync", sync, "VeException: Sync: Could not synchronize changes to disk. Error Permission denied."},
        // As a 32-bit time cannot tell it.
        {"stat", [this] { return FileServiceBase::Exists(path); }, "true", 0, EOVERFLOW},
    });
    FileServiceBase::Delete(path);
    const auto create = [this] { Make(FileMode::OpenOrCreate, FileAccess::Read); };
    ExpectFailures({{"open", create, denied}, {"fdopen", create, denied}});
}

TEST_F(FileTest, ClosedFileRefusesEverything) {
    FileService file(path, FileMode::Create, FileAccess::ReadWrite, true);
    file.Close();
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

TEST_F(FileTest, FullDiskIsToldByClosing) {
    // A device that is always full.
    const auto file = Own(factory->CreateFile("/dev/full", FileMode::Open, FileAccess::Write, false));
    Write(*file, "x");
    EXPECT_NE(file->Flush(), 0);
    Write(*file, "x");
    EXPECT_NE(file->Close(), 0);
    // No room for another byte: once flushing has failed, synchronising does not.
    EXPECT_TRUE(SucceedsInChild([this] {
        EXPECT_NE(signal(SIGXFSZ, SIG_IGN), SIG_ERR);
        const rlimit nothing{0, 0};
        setrlimit(RLIMIT_FSIZE, &nothing);
        const auto limited = Make(FileMode::Create, FileAccess::Write, true);
        Write(*limited, "x");
        EXPECT_NE(limited->Close(), 0);
        EXPECT_EQ(Descriptor(), -1);
    }));
}

TEST_F(FileTest, OrdinaryUserIsDenied) {
    SetContent("old");
    std::filesystem::permissions(std::string(path), std::filesystem::perms::owner_read);
    EXPECT_TRUE(SucceedsInChild([this] {
        // The folder stays out of the user's reach.
        EXPECT_EQ(chmod((folder / "").c_str(), 0755), 0);
        BecomeOrdinaryUser(path);
        EXPECT_EQ(Read(*Make(FileMode::Open, FileAccess::Read)), "old");
        EXPECT_TRUE(ComesTo([this] { Make(FileMode::OpenOrCreate, FileAccess::Write); }, denied));
    }));
    EXPECT_EQ(Content(), "old");
}

TEST_F(FileTest, FileThatAppearsMeanwhileIsNotEmptied) {
    const auto appear = [this](const char* call, FileMode mode) {
        FileServiceBase::Delete(path);
        const Interposition appearing(call, [&](const auto& arguments) {
            SetContent("theirs");
            return appearing.CallThrough(arguments);
        });
        return Operation([&] { return Read(*Make(mode, FileAccess::ReadWrite)); }).Outcome();
    };
    EXPECT_EQ(appear("fopen", FileMode::CreateNew), exists);
    EXPECT_EQ(appear("open", FileMode::OpenOrCreate), "theirs");
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
    // No mode, nothing done.
    file.Open(path, static_cast<FileMode>(0), FileAccess::Write);
    EXPECT_EQ(file.Tell(), 6);
    EXPECT_TRUE(ComesTo([&] { file.Open(folder / "no/file", FileMode::Open, FileAccess::Read); },
                        "NotExistException: Path '" + folder / "no/file" + "' does not exist."));
    EXPECT_TRUE(ComesTo([&] { file.Tell(); }, "VeException: Tell: this->pFile == nullptr"));
}

TEST_F(FileTest, ClosingSynchronisesWhatMayBeWrittenByTheAccessThatWas) {
    SetContent("x");
    FileService file(path, FileMode::Open, FileAccess::Read, true);
    EXPECT_EQ(CountSynchronisations([&] { file.Open(path, FileMode::Open, FileAccess::Write); }), 0U);
    EXPECT_EQ(CountSynchronisations([&] { file.Open(path, FileMode::Open, FileAccess::Read); }), 1U);
    EXPECT_EQ(CountSynchronisations([&] { file.Close(); }), 0U);
    EXPECT_EQ(CountSynchronisations([&] { Make(FileMode::Open, FileAccess::Write); }), 0U);
    EXPECT_EQ(CountSynchronisations([&] { FileServiceBase::Sync(path); }), 1U);
}

TEST_F(FileTest, PathsAreLookedForDeletedAndSynchronised) {
    EXPECT_FALSE(FileServiceBase::Exists(path));
    EXPECT_FALSE(FileServiceBase::Delete(path));
    EXPECT_TRUE(FileServiceBase::Exists(folder / ""));
    EXPECT_EQ(FileServiceBase::Sync(folder / ""), 0);
    std::filesystem::create_directory(folder / "folder");
    EXPECT_TRUE(FileServiceBase::Delete(folder / "folder"));
    std::filesystem::create_symlink("nowhere", std::string(path));
    EXPECT_FALSE(FileServiceBase::Exists(path));
    EXPECT_TRUE(FileServiceBase::Delete(path));
    // Nobody opens its other end.
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const Interposition inherited("fsync", [&](const auto& arguments) {
        EXPECT_NE(fcntl(Descriptor(), F_GETFD) & FD_CLOEXEC, 0);
        return inherited.CallThrough(arguments);
    });
    EXPECT_TRUE(ComesTo([this] { FileServiceBase::Sync(path); },
                        "VeException: Sync: Could not synchronize changes to disk. Error Invalid argument."));
    std::atomic<bool> isSynchronised{false};
    const Interposition all("sync", [&](const auto& /*arguments*/) { return isSynchronised = true; });
    FileServiceBase::SyncAll();
    EXPECT_TRUE(isSynchronised);
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
         {std::pair(0, 0), {ENOENT, 3}, {EEXIST, 4}, {EACCES, 5}, {ENOSPC, 6}, {EPERM, 1}, {29, 1}, {999, 1}}) {
        EXPECT_EQ(FileServiceBase::MapSystemErrorCode(static_cast<unsigned int>(code)), errorClass) << code;
    }
}

}  // namespace
