#include "Factory.h"
#include "Families.h"
#include "FileWorks.h"

#include <Kel/System/Ve/IFileService.h>
#include <Kel/System/Ve/ISharedMemoryService.h>
#include <Kel/System/Ve/Internal/FileServiceBase.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

using Kel::System::Ve::IFileService;
using Kel::System::Ve::ISharedMemoryService;
using Kel::System::Ve::Internal::FileServiceBase;
using FileMode = IFileService::FileMode;
using FileAccess = IFileService::FileAccess;

namespace {

struct LibraryFile : TemporaryFile {
    bool Read(char* buffer) {
        return file->Read(reinterpret_cast<unsigned char*>(buffer), 0, recordSize) == recordSize;
    }
    bool Write(const char* bytes) {
        return file->Write(reinterpret_cast<const unsigned char*>(bytes), 0, recordSize) == recordSize;
    }
    bool Flush() { return file->Flush() == 0; }
    bool GoBack() { return file->Seek(0, IFileService::SeekOrigin::Begin) == 0; }

    std::unique_ptr<IFileService> file{Factory().CreateFile(path, FileMode::Open, FileAccess::ReadWrite, false)};
};

struct BareFile : TemporaryFile {
    BareFile() { Expect(file != nullptr); }
    ~BareFile() { std::fclose(file); }
    BareFile(const BareFile&) = delete;
    BareFile& operator=(const BareFile&) = delete;

    bool Read(char* buffer) { return std::fread(buffer, 1, recordSize, file) == recordSize; }
    bool Write(const char* bytes) { return std::fwrite(bytes, 1, recordSize, file) == recordSize; }
    bool Flush() { return std::fflush(file) == 0; }
    bool GoBack() { return std::fseek(file, 0, SEEK_SET) == 0 && std::ftell(file) == 0; }

    std::FILE* file = std::fopen(path.c_str(), "r+be");
};

void RegisterSharedMemory() {
    const Kel::BasicString name = UniqueName("/kel-bench-memory-");
    const auto whileItExists = [name](auto work) {
        return [name, work](benchmark::State& state) {
            const int descriptor = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
            Expect(descriptor != -1 && ftruncate(descriptor, sharedSize) == 0 && close(descriptor) == 0);
            for (auto _ : state) {
                work();
            }
            Expect(shm_unlink(name.c_str()) == 0);
        };
    };
    RegisterRun("shared memory/open and close/library", whileItExists([&factory = Factory(), name] {
                    const std::unique_ptr<ISharedMemoryService> memory(
                        factory.CreateSharedMemory(name, sharedSize, ISharedMemoryService::mode::Open));
                    // The library keeps it mapped.
                    Expect(munmap(memory->GetAddress(), sharedSize) == 0);
                }));
    RegisterRun("shared memory/open and close/bare", whileItExists([name] {
                    const int descriptor = shm_open(name.c_str(), O_RDWR, 0666);
                    Expect(descriptor != -1);
                    void* const address = mmap(nullptr, sharedSize, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
                    Expect(address != MAP_FAILED && close(descriptor) == 0 && munmap(address, sharedSize) == 0);
                }));
}

}  // namespace

void RegisterFiles() {
    RegisterFileWorks<LibraryFile>("library");
    RegisterFileWorks<BareFile>("bare");
    RegisterFileWorks<StreamFile<std::fstream>>("std");

    RegisterOn<TemporaryFile>("file/open and close/std",
                              [](auto& file) { Expect(std::ifstream(file.path, std::ios::binary).is_open()); });
    RegisterOn<TemporaryFile>("file/exists/library", [](auto& file) { Expect(FileServiceBase::Exists(file.path)); });
    RegisterOn<TemporaryFile>("file/exists/bare", [](auto& file) {
        struct stat status {};
        Expect(stat(file.path.c_str(), &status) == 0);
    });
    RegisterOn<TemporaryFile>("file/exists/std",
                              [](auto& file) { Expect(std::filesystem::exists(file.path.c_str())); });

    RegisterSharedMemory();
}
