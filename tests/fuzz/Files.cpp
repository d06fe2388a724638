// Files: whatever is done to a file, it comes to what the same does to its twin by the C library's own calls.

#include "Fuzz.h"

#include "../support/TemporaryFolder.h"

#include <Kel/System/Ve/Internal/Linux/FileService.h>

#include <climits>
#include <fstream>
#include <iterator>
#include <memory>

using Kel::System::Ve::IFileService;
using Kel::System::Ve::Internal::Linux::FileService;

namespace {

std::string Content(const std::string& path) {
    std::ifstream disk(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(disk), {}};
}

class Trial {
public:
    Trial(const TemporaryFolder& folder, Input& newInput)
        : input(newInput), path(folder / "file"), twinPath(folder / "twin"), elsewhere(folder / "missing" + "/file") {}

    void Run() {
        for (int steps = 0; steps < 100 && !input.IsEmpty(); ++steps) {
            Step(input.Number<std::uint8_t>() % 12);
        }
        file.reset();
        twin.reset();
        Require(Content(path) == Content(twinPath), "the file holds what was written");
        Delete();
        Require(Factory().GetStatistics().GetNumOfObjectsCreated() == 0, "no object is left");
    }

private:
    void Step(int kind) {
        if (kind < 3) {
            Open(kind == 2);
        } else if (kind < 5) {
            Read();
        } else if (kind < 7) {
            Write();
        } else if (kind < 9) {
            const auto offset = input.Number<std::uint32_t>();
            Seek(offset, input.Small());
        } else if (kind == 9) {
            RequireOpen([&] { Require(file->Flush() == (access == 1 ? EOF : 0), "what is written is flushed"); });
        } else if (kind == 10) {
            RequireOpen([&] { Require(file->Close() == 0, "what is open is closed"); });
            twin.reset();
        } else {
            Delete();
        }
    }

    void Delete() {
        const bool exists = FileService::Exists(path);
        Require((std::remove(twinPath.c_str()) == 0) == exists && FileService::Delete(path) == exists &&
                    !FileService::Exists(path),
                "what is there can be deleted");
    }

    void Open(bool isAgain) {
        const int mode = input.Small() % 9;
        const int asked = input.Number<std::uint8_t>() % 5;
        const bool isElsewhere = input.Number<std::uint8_t>() % 8 == 0;
        const Kel::BasicString place = isElsewhere ? elsewhere : path;
        if (isAgain && file == nullptr) {
            return;
        }
        const std::string thrown = Thrown([&] {
            if (isAgain) {
                file->Open(place, IFileService::FileMode{mode}, IFileService::FileAccess{asked});
                return;
            }
            file.reset();
            twin.reset();
            const bool syncs = input.Number<std::uint8_t>() % 64 == 0;
            file.reset(dynamic_cast<FileService*>(
                Factory().CreateFile(place, IFileService::FileMode{mode}, IFileService::FileAccess{asked}, syncs)));
        });
        access = asked;
        const bool needsWriting = mode == 1 || mode == 2 || mode == 5 || mode == 6;
        const bool isRefused = asked < 1 || asked > 3 || (asked == 1 && needsWriting);
        if (mode >= 1 && mode <= 6 && !isRefused) {
            OpenTwin(isElsewhere ? elsewhere : twinPath, mode, thrown.empty());
        }
        Require(isRefused ? !thrown.empty() : thrown.empty() == (twin != nullptr) || !thrown.compare(0, 3, "258"),
                "a file is opened or not");
    }

    void OpenTwin(const std::string& place, int mode, bool isOpened) {
        const bool exists = FileService::Exists(place);
        if (mode == 1 && exists) {
            Require(!isOpened, "what exists is not made anew");
            return;
        }
        const bool mustExist = mode == 3 || mode == 5;
        const char* const how = mode == 6                            ? "a+b"
                                : mode == 3 && access == 1           ? "rb"
                                : mode == 3 || (mode == 4 && exists) ? "r+b"
                                                                     : "w+b";
        twin.reset();
        twin.reset(mustExist && !exists ? nullptr : fopen64(place.c_str(), how));
        turn = 0;
    }

    // Requires that what needs an open file is refused without one.
    template <typename Operation>
    bool RequireOpen(Operation operation) {
        Require(!file || Thrown(operation).empty() == (twin != nullptr), "what is closed refuses all");
        return file && twin;
    }

    // Between reading and writing the position must be set.
    void Turn(int next) {
        if (file && twin && std::exchange(turn, next) == -next) {
            Seek(0, 2);
            turn = next;
        }
    }

    void Read() {
        std::string bytes(input.Number<std::uint16_t>() % 10000, '\0');
        const unsigned int offset = input.Number<std::uint8_t>();
        std::string expected = bytes;
        unsigned int count = 0;
        Turn(1);
        if (RequireOpen([&] {
                count = file->Read(reinterpret_cast<unsigned char*>(bytes.data()), offset,
                                   static_cast<unsigned int>(bytes.size()));
            })) {
            Require(count == fread(expected.data(), 1, expected.size(), twin.get()) && bytes == expected,
                    "what is there is read");
        }
    }

    void Write() {
        std::string bytes = input.Text();
        for (int doublings = input.Number<std::uint8_t>() % 8; doublings > 0 && bytes.size() < 10000; --doublings) {
            bytes += bytes;
        }
        if (twin && ftello64(twin.get()) > 100000) {
            return;
        }
        unsigned int count = 0;
        Turn(-1);
        if (RequireOpen([&] {
                count = file->Write(reinterpret_cast<const unsigned char*>(bytes.data()), 1,
                                    static_cast<unsigned int>(bytes.size()));
            })) {
            Require(count == fwrite(bytes.data(), 1, bytes.size(), twin.get()), "what may be written is written");
        }
    }

    void Seek(unsigned int offset, int origin) {
        if (!file) {
            return;
        }
        long reached = -1;
        static_cast<void>(Thrown([&] { reached = file->Seek(offset, IFileService::SeekOrigin{origin}); }));
        long expected = -1;
        if (twin && offset <= INT_MAX) {
            turn = 0;
            fseeko64(twin.get(), offset, origin == 1 ? SEEK_SET : origin == 2 ? SEEK_CUR : SEEK_END);
            const off64_t position = ftello64(twin.get());
            expected = position > INT_MAX ? -1 : static_cast<long>(position);
            long told = -1;
            static_cast<void>(Thrown([&] { told = file->Tell(); }));
            Require(told == expected, "a position up to 2 GiB is told");
        }
        Require(reached == expected, "a position is reached or not");
    }

    struct Closing {
        void operator()(std::FILE* stream) const { static_cast<void>(std::fclose(stream)); }
    };

    Input& input;
    const std::string path;
    const std::string twinPath;
    const std::string elsewhere;
    std::unique_ptr<FileService> file;
    std::unique_ptr<std::FILE, Closing> twin;
    int access = 0;
    // 1 after reading, -1 after writing.
    int turn = 0;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const TemporaryFolder folder;
    Input input(data, size);
    Trial(folder, input).Run();
    return 0;
}
