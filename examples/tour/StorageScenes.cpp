#include "Scenes.h"

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Exceptions/AlreadyExistsException.h>
#include <Kel/System/Ve/IFileService.h>
#include <Kel/System/Ve/ISharedMemoryService.h>
#include <Kel/System/Ve/Internal/FileServiceBase.h>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

using Kel::System::Ve::IFileService;
using Kel::System::Ve::ISharedMemoryService;
using Kel::System::Ve::Adapters::Own;
using Kel::System::Ve::Exceptions::AlreadyExistsException;
using Kel::System::Ve::Internal::FileServiceBase;
using Kel::System::Ve::Internal::ServiceFactory;

void ShowSharedMemory(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Shared memory: the same bytes in two processes");
    constexpr unsigned int size = 4096;
    const Kel::BasicString name = "/kel-tour-" + std::to_string(getpid());
    const auto memory = Own(factory.CreateSharedMemory(name, size, ISharedMemoryService::mode::Create));
    auto* const text = static_cast<char*>(memory->GetAddress());
    const auto write = [](char* place, const std::string& what) { place[what.copy(place, size - 1)] = '\0'; };
    write(text, "written by the parent");
    const pid_t child = fork();
    if (child == 0) {
        const auto opened = Own(factory.CreateSharedMemory(name, size, ISharedMemoryService::mode::Open));
        auto* const seen = static_cast<char*>(opened->GetAddress());
        const bool isThere = seen != text && std::strcmp(seen, "written by the parent") == 0;
        write(seen, "changed by the child");
        _exit(isThere ? 0 : 1);
    }
    int status = -1;
    narrator.Check(child > 0 && waitpid(child, &status, 0) == child && status == 0,
                   "a child has opened " + name + " at another address and read what its parent wrote");
    narrator.Check(std::strcmp(text, "changed by the child") == 0, "the parent reads: " + std::string(text));
    memory->Unlink();
    narrator.Say("The name is removed; the memory stays mapped until the process ends.");
}

void ShowFile(Narrator& narrator, ServiceFactory& factory) {
    narrator.Scene("Files: on the disk when closed");
    using FileMode = IFileService::FileMode;
    using FileAccess = IFileService::FileAccess;
    const Kel::BasicString path = "/tmp/kel-tour-" + std::to_string(getpid());
    const std::string text = "These bytes survive a power failure.";
    const auto count = static_cast<unsigned int>(text.size());
    {
        const auto file = Own(factory.CreateFile(path, FileMode::CreateNew, FileAccess::Write, true));
        const unsigned int written = file->Write(reinterpret_cast<const unsigned char*>(text.data()), 0, count);
        narrator.Check(written == count && file->Close() == 0,
                       std::to_string(written) + " bytes are written to " + path + " and synchronised with the disk");
    }
    {
        const auto file = Own(factory.CreateFile(path, FileMode::Open, FileAccess::Read, false));
        std::string read(count, ' ');
        file->Seek(6, IFileService::SeekOrigin::Begin);
        read.resize(file->Read(reinterpret_cast<unsigned char*>(read.data()), 0, count));
        narrator.Check(read == text.substr(6), "read back from position 6: \"" + read + "\"");
    }
    std::string message;
    try {
        delete factory.CreateFile(path, FileMode::CreateNew, FileAccess::Write, true);
    } catch (const AlreadyExistsException& exception) {
        message = exception.GetMessage();
    }
    narrator.Check(!message.empty(), "a second CreateNew says: " + message);
    narrator.Check(FileServiceBase::Delete(path) && !FileServiceBase::Exists(path), "and the file is gone");
}
