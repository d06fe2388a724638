#include "support/Test.h"

#include <dlfcn.h>
#include <link.h>

#include <set>

namespace {

// Addresses and lengths.
using Ranges = std::set<std::pair<std::intptr_t, std::intptr_t>>;

// The segments that the library of a function is loaded to.
Ranges SegmentsAround(void* function) {
    Dl_info library;
    dladdr(function, &library);
    const auto* const start = static_cast<const char*>(library.dli_fbase);
    const auto* const header = reinterpret_cast<const ElfW(Ehdr)*>(start);
    const auto* const first = reinterpret_cast<const ElfW(Phdr)*>(start + header->e_phoff);
    Ranges segments;
    std::for_each(first, first + header->e_phnum, [&](const auto& segment) {
        if (segment.p_type == PT_LOAD) {
            segments.emplace(reinterpret_cast<std::intptr_t>(start + segment.p_vaddr), segment.p_memsz);
        }
    });
    return segments;
}

class SharedLibraryTest : public FactoryTest {
protected:
    std::unique_ptr<ISharedLibraryService> Make() { return Own(factory->CreateSharedLibrary()); }

    const BasicString plugin = PluginPath();
    const std::unique_ptr<ISharedLibraryService> library = Make();

    /// What is locked, as the library has asked for it; whether there is the right to lock memory makes no difference.
    Ranges locked;
    const Interposition lock{"mlock", [this](const auto& arguments) {
                                 locked.emplace(arguments[0], arguments[1]);
                                 return -1;
                             }};
    const Interposition unlock{"munlock", [this](const auto& arguments) {
                                   locked.erase({arguments[0], arguments[1]});
                                   return -1;
                               }};
};

TEST_F(SharedLibraryTest, IsLockedInMemoryWhileAnyoneHasItLoaded) {
    EXPECT_EQ(library->GetFunctionAddress("main"), nullptr);
    library->Unload();
    BasicString path = plugin;
    std::replace(path.begin(), path.end(), '/', '\\');
    EXPECT_TRUE(HasNoCancellationPoint([&] { library->Load(path); }));
    void* const function = library->GetFunctionAddress("PluginAnswer");
    EXPECT_EQ(reinterpret_cast<int (*)()>(function)(), 42);
    EXPECT_EQ(library->GetFunctionAddress("NoSuchFunction"), nullptr);
    // Its names are known to all. In a child, since looking there keeps it loaded.
    EXPECT_TRUE(SucceedsInChild([] { EXPECT_NE(dlsym(RTLD_DEFAULT, "PluginAnswer"), nullptr); }));
    Make()->Load(plugin);
    EXPECT_EQ(locked, SegmentsAround(function));
    EXPECT_TRUE(HasNoCancellationPoint([&] { library->Unload(); }));
    EXPECT_EQ(library->GetFunctionAddress("main"), nullptr);
    EXPECT_EQ(dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_TRUE(locked.empty());
}

TEST_F(SharedLibraryTest, MovedSegmentIsLockedOnce) {
    alignas(4096) static char page[4096];
    {
        LockedMemorySegment first(page, sizeof page);
        LockedMemorySegment second(std::move(first));
        LockedMemorySegment third(nullptr, 0);
        third = std::move(second);
        // NOLINTNEXTLINE(bugprone-use-after-move): they have nothing left.
        for (const LockedMemorySegment* const moved : {&first, &second}) {
            EXPECT_TRUE(moved->GetAddress() == nullptr && moved->GetLength() == 0);
        }
        EXPECT_EQ(locked, Ranges({{reinterpret_cast<std::intptr_t>(page), sizeof page}}));
    }
    EXPECT_TRUE(locked.empty());
}

TEST_F(SharedLibraryTest, FailuresAreReported) {
    EXPECT_NE(SharedLibraryServiceBase::GetPathOfVeLibrary().find("libKel.System.Ve.so"), std::string::npos);
    // This program itself, which stays loaded.
    library->Load("");
    const std::string loading = "VeException: Loading of the shared library '";
    EXPECT_TRUE(ComesTo([&] { library->Load("no\\such {0}.so"); },
                        loading + "no/such {0}.so' failed with error 'no/such {0}.so: cannot open shared object file: "
                                  "No such file or directory'"));
    // All of its symbols are looked for at once.
    EXPECT_THROW(library->Load(PluginPath("broken-plugin")), VeException);
    // The first allocation is for the path, the second for what is locked.
    const FailingAllocation second(1);
    EXPECT_THROW(library->Load(plugin), std::bad_alloc);
    EXPECT_EQ(dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    library->Load(plugin);
    void* const handle = dlopen(plugin.c_str(), RTLD_NOW);
    dlclose(handle);
    std::ostringstream unloading;
    unloading << "VeException: Unload: Unloading of the library with the handle '" << handle << "' failed with error ";
    ExpectFailures({
        {"dlclose", [&] { library->Unload(); }, unloading.str() + "code -1."},
        {"dlinfo", [&] { Make()->Load(plugin); }, "done"},
        // The loader may give no reason.
        {"dlopen", [&] { Make()->Load("x.so"); }, loading + "x.so' failed with error ''"},
    });
    // It has kept the handle.
    EXPECT_NE(library->GetFunctionAddress("PluginAnswer"), nullptr);
}

}  // namespace
