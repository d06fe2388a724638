#include "Families.h"

#include <Kel/System/Ve/IFileService.h>
#include <Kel/System/Ve/ISharedMemoryService.h>
#include <Kel/System/Ve/Internal/FileServiceBase.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

using Kel::System::Ve::IFileService;
using Kel::System::Ve::ISharedMemoryService;
using Kel::System::Ve::Internal::FileServiceBase;
using FileMode = IFileService::FileMode;
using FileAccess = IFileService::FileAccess;

namespace {

constexpr unsigned int size = 64;

void RegisterFiles(ServiceFactory& factory) {
    const Kel::BasicString path = "/dev/shm/kel-bench-" + std::to_string(getpid());
    const std::shared_ptr<IFileService> file(factory.CreateFile(path, FileMode::Create, FileAccess::ReadWrite, false),
                                             [path](IFileService* created) {
                                                 delete created;
                                                 FileServiceBase::Delete(path);
                                             });
    const std::shared_ptr<std::FILE> bare(std::fopen(path.c_str(), "w+b"), &std::fclose);

    // From the beginning each time, so that the file does not grow.
    Register("file/write 64 bytes/library", [file, written = 0]() mutable {
        const unsigned char bytes[size] = {};
        if (++written % 1024 == 0) {
            file->Seek(0, IFileService::SeekOrigin::Begin);
        }
        file->Write(bytes, 0, size);
    });
    Register("file/write 64 bytes/bare", [bare, written = 0]() mutable {
        const unsigned char bytes[size] = {};
        if (++written % 1024 == 0) {
            std::fseek(bare.get(), 0, SEEK_SET);
        }
        std::fwrite(bytes, 1, size, bare.get());
    });
    Register("file/open and close/library",
             [&factory, path] { delete factory.CreateFile(path, FileMode::Open, FileAccess::Read, false); });
    Register("file/open and close/bare", [path] { std::fclose(std::fopen(path.c_str(), "rbe")); });
    Register("file/exists/library", [path] { benchmark::DoNotOptimize(FileServiceBase::Exists(path)); });
    Register("file/exists/bare", [path] {
        struct stat status {};
        benchmark::DoNotOptimize(stat(path.c_str(), &status));
    });
}

void RegisterSharedMemory(ServiceFactory& factory) {
    const Kel::BasicString name = "/kel-bench-memory-" + std::to_string(getpid());
    // The library keeps the memory mapped and the descriptor open; here both are given back.
    Register("shared memory/create and unlink/library", [&factory, name] {
        const std::unique_ptr<ISharedMemoryService> memory(
            factory.CreateSharedMemory(name, 4096, ISharedMemoryService::mode::Create));
        munmap(memory->GetAddress(), 4096);
        memory->Close();
        shm_unlink(name.c_str());
    });
    Register("shared memory/create and unlink/bare", [name] {
        const int descriptor = shm_open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0666);
        benchmark::DoNotOptimize(ftruncate(descriptor, 4096));
        munmap(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0), 4096);
        close(descriptor);
        shm_unlink(name.c_str());
    });
}

}  // namespace

void RegisterStorage(ServiceFactory& factory) {
    RegisterFiles(factory);
    RegisterSharedMemory(factory);
}
