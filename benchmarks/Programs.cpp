#include "Expect.h"
#include "Factory.h"
#include "Families.h"
#include "ProgramWorks.h"

#include <Kel/System/Ve/IProcessService.h>
#include <Kel/System/Ve/ISharedLibraryService.h>

#include <dlfcn.h>
#include <link.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

using Kel::System::Ve::IProcessService;
using Kel::System::Ve::ISharedLibraryService;

namespace {

// What a program that is started by hand needs: does it exist, make the process, execute, wait.
template <typename MakeProcess>
void RunByHand(MakeProcess makeProcess) {
    struct stat status {};
    Expect(stat(program, &status) == 0);
    char path[sizeof program];
    std::copy(std::begin(program), std::end(program), path);
    char* arguments[] = {path, nullptr};
    const pid_t child = makeProcess(arguments);
    int exitStatus = 0;
    Expect(child > 0 && waitpid(child, &exitStatus, 0) == child && exitStatus == 0);
}

pid_t Fork(char** arguments) {
    const pid_t child = fork();
    if (child == 0) {
        execvp(arguments[0], arguments);
        _exit(1);
    }
    return child;
}

pid_t Vfork(char** arguments) {
    const pid_t child = vfork();
    if (child == 0) {
        execvp(arguments[0], arguments);
        _exit(1);
    }
    return child;
}

pid_t Spawn(char** arguments) {
    pid_t child = 0;
    Expect(posix_spawn(&child, arguments[0], nullptr, nullptr, arguments, environ) == 0);
    return child;
}

using Range = std::pair<void*, std::size_t>;

// The segments of the library with the dynamic section of `map`.
struct Search {
    const link_map* map;
    std::vector<Range> segments;
};

int Collect(dl_phdr_info* module, std::size_t /*size*/, void* argument) {
    auto& search = *static_cast<Search*>(argument);
    bool found = false;
    for (int i = 0; i < module->dlpi_phnum; ++i) {
        const auto& header = module->dlpi_phdr[i];
        found = found || (header.p_type == PT_DYNAMIC &&
                          module->dlpi_addr + header.p_vaddr == reinterpret_cast<ElfW(Addr)>(search.map->l_ld));
    }
    for (int i = 0; found && i < module->dlpi_phnum; ++i) {
        const auto& header = module->dlpi_phdr[i];
        if (header.p_type == PT_LOAD) {
            search.segments.emplace_back(reinterpret_cast<void*>(search.map->l_addr + header.p_vaddr), header.p_memsz);
        }
    }
    return found ? 1 : 0;
}

void LoadLookUpAndUnloadByHand() {
    void* const handle = dlopen(BENCH_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
    link_map* map = nullptr;
    Expect(handle != nullptr && dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0);
    Search search{map, {}};
    Expect(dl_iterate_phdr(&Collect, &search) == 1);
    for (const Range& segment : search.segments) {
        mlock(segment.first, segment.second);
    }
    Expect(dlsym(handle, symbol) != nullptr);
    for (const Range& segment : search.segments) {
        munlock(segment.first, segment.second);
    }
    Expect(dlclose(handle) == 0);
}

void RegisterLibraries() {
    const Kel::BasicString path = BENCH_LIBRARY;
    const Kel::BasicString function = symbol;
    RegisterRun("shared library/load, look up and unload/library", [path, function](benchmark::State& state) {
        const std::unique_ptr<ISharedLibraryService> library(Factory().CreateSharedLibrary());
        for (auto _ : state) {
            library->Load(path);
            Expect(library->GetFunctionAddress(function) != nullptr);
            library->Unload();
        }
    });
    Register("shared library/load, look up and unload/bare", [] { LoadLookUpAndUnloadByHand(); });

    RegisterRun("shared library/look up/library", [path, function](benchmark::State& state) {
        const std::unique_ptr<ISharedLibraryService> library(Factory().CreateSharedLibrary());
        library->Load(path);
        for (auto _ : state) {
            Expect(library->GetFunctionAddress(function) != nullptr);
        }
    });
    RegisterRun("shared library/look up/bare", [](benchmark::State& state) {
        void* const handle = dlopen(BENCH_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
        Expect(handle != nullptr);
        for (auto _ : state) {
            Expect(dlsym(handle, symbol) != nullptr);
        }
        Expect(dlclose(handle) == 0);
    });
}

}  // namespace

void RegisterPrograms() {
    RegisterProcess("library", [] {
        const std::unique_ptr<IProcessService> process(Factory().CreateProcess());
        int exitCode = -1;
        process->StartBlocking("", program, "", exitCode);
        Expect(exitCode == 0);
    });
    RegisterProcess("bare", [] { RunByHand(&Fork); });
    RegisterProcess("vfork", [] { RunByHand(&Vfork); });
    RegisterProcess("posix_spawn", [] { RunByHand(&Spawn); });
    RegisterLibraries();
}
