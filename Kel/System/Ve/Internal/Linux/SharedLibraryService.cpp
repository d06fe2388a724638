#include <Kel/System/Ve/Internal/Linux/SharedLibraryService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/Core/FinishedText.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace Kel::System::Ve::Internal {

BasicString GetPathOfCurrentModule() {
    // Of its own: the address of a function may be that of a stub in the program that calls it.
    static const char inThisModule = 0;
    Dl_info module;
    return dladdr(&inThisModule, &module) != 0 ? module.dli_fname : "";
}

}  // namespace Kel::System::Ve::Internal

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

namespace {

bool HasDynamicSection(const dl_phdr_info& module, const ElfW(Dyn) * dynamicSection) {
    return std::any_of(module.dlpi_phdr, module.dlpi_phdr + module.dlpi_phnum, [&](const ElfW(Phdr) & header) {
        return header.p_type == PT_DYNAMIC &&
               module.dlpi_addr + header.p_vaddr == reinterpret_cast<ElfW(Addr)>(dynamicSection);
    });
}

// A module is known by its dynamic section: several may have the load address 0.
struct ModuleSearch {
    const ElfW(Dyn) * dynamicSection;
    dl_phdr_info found;
};

// For dl_iterate_phdr, which goes on to the next module for as long as this returns 0.
int FindModule(dl_phdr_info* module, std::size_t /*size*/, void* argument) {
    auto& search = *static_cast<ModuleSearch*>(argument);
    if (!HasDynamicSection(*module, search.dynamicSection)) {
        return 0;
    }
    search.found = *module;
    return 1;
}

}  // namespace

SharedLibraryService::SharedLibraryService()
    : ServiceObjectBase("SharedLibraryService", ServiceType::SharedLibrary, true) {}

SharedLibraryService::~SharedLibraryService() { Unload(); }

void SharedLibraryService::Load(const BasicString& path) {
    // What the library does meanwhile may be a cancellation point, but the loader would keep its lock.
    const CancellationDisabled disabled;
    BasicString converted = path;
    std::replace(converted.begin(), converted.end(), '\\', '/');
    handle = dlopen(converted.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): each thread has a text of its own, or null.
        const char* const error = dlerror();
        throw VeException(FinishedText{"Loading of the shared library '" + converted + "' failed with error '" +
                                       (error != nullptr ? error : "") + "'"});
    }
    try {
        LockMemory();
    } catch (...) {
        Unload();
        throw;
    }
}

void SharedLibraryService::LockMemory() {
    link_map* map = nullptr;
    if (handle == nullptr || dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0) {
        return;
    }
    // The loader's records of the program headers: the file's header need not be mapped at the load address.
    ModuleSearch search{map->l_ld, {}};
    if (dl_iterate_phdr(&FindModule, &search) == 0) {
        return;
    }
    const dl_phdr_info& module = search.found;
    std::for_each(module.dlpi_phdr, module.dlpi_phdr + module.dlpi_phnum, [&](const ElfW(Phdr) & header) {
        if (header.p_type == PT_LOAD) {
            constexpr ElfW(Xword) longest = std::numeric_limits<std::uint32_t>::max();
            // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader has numbers only.
            lockedSegments.emplace_back(reinterpret_cast<void*>(map->l_addr + header.p_vaddr),
                                        static_cast<std::uint32_t>(std::min<ElfW(Xword)>(header.p_memsz, longest)));
        }
    });
}

void SharedLibraryService::UnlockMemory() { lockedSegments.clear(); }

void SharedLibraryService::Unload() {
    const CancellationDisabled disabled;
    if (handle == nullptr) {
        return;
    }
    UnlockMemory();
    const int result = dlclose(handle);
    if (result != 0) {
        throw VeException("{0}: Unloading of the library with the handle '{1}' failed with error code {2}.", __func__,
                          handle, result);
    }
    handle = nullptr;
}

void* SharedLibraryService::GetFunctionAddress(const BasicString& name) const {
    return handle != nullptr ? dlsym(handle, name.c_str()) : nullptr;
}

}  // namespace Kel::System::Ve::Internal::Linux
