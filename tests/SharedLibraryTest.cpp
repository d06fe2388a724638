#include "support/Test.h"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <set>

namespace {

using Ranges = std::multiset<std::pair<std::intptr_t, std::intptr_t>>;

// The segments that a library is loaded to, as addresses and lengths.
Ranges SegmentsOf(const std::string& name) {
    std::pair<std::string, Ranges> search(name, {});
    dl_iterate_phdr(
        [](dl_phdr_info* module, std::size_t /*size*/, void* argument) {
            auto& [wanted, segments] = *static_cast<std::pair<std::string, Ranges>*>(argument);
            for (int i = 0; module->dlpi_name == wanted && i < module->dlpi_phnum; ++i) {
                const auto& header = module->dlpi_phdr[i];
                if (header.p_type == PT_LOAD) {
                    segments.emplace(module->dlpi_addr + header.p_vaddr, header.p_memsz);
                }
            }
            return 0;
        },
        &search);
    return search.second;
}

std::function<void()> whileLibraryIsLoaded;

class SharedLibraryTest : public FactoryTest {
protected:
    std::unique_ptr<ISharedLibraryService> Make() { return Own(factory->CreateSharedLibrary()); }

    static int Answer(const ISharedLibraryService& library) {
        void* const function = library.GetFunctionAddress("PluginAnswer");
        return function != nullptr ? reinterpret_cast<int (*)()>(function)() : -1;
    }

    bool IsLoaded() const {
        void* const handle = dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD);
        return handle != nullptr && dlclose(handle) == 0;
    }

    const BasicString plugin = PluginPath();

    /// What is locked, as the library has asked for it; whether there is the right to lock memory makes no difference.
    Ranges locked;
    const Interposition lock{"mlock", [this](const auto& arguments) {
                                 locked.emplace(arguments[0], arguments[1]);
                                 return lock.CallThrough(arguments);
                             }};
    const Interposition unlock{"munlock", [this](const auto& arguments) {
                                   locked.erase({arguments[0], arguments[1]});
                                   return unlock.CallThrough(arguments);
                               }};
};

TEST_F(SharedLibraryTest, LoadsAndUnloads) {
    EXPECT_NE(SharedLibraryServiceBase::GetPathOfVeLibrary().find("libKel.System.Ve.so"), std::string::npos);
    auto library = Make();
    EXPECT_EQ(library->GetFunctionAddress("PluginAnswer"), nullptr);
    library->Unload();
    BasicString path = plugin;
    std::replace(path.begin(), path.end(), '/', '\\');
    library->Load(path);
    EXPECT_EQ(Answer(*library), 42);
    // Its names are known to all. In a child, since looking there keeps it loaded.
    EXPECT_EQ(Child([] { return dlsym(RTLD_DEFAULT, "PluginAnswer") != nullptr ? 0 : 1; }).Wait(), 0);
    EXPECT_EQ(library->GetFunctionAddress("NoSuchFunction"), nullptr);
    library->Unload();
    EXPECT_EQ(library->GetFunctionAddress("PluginAnswer"), nullptr);
    EXPECT_FALSE(IsLoaded());
    library->Unload();
    library->Load(plugin);
    library.reset();
    EXPECT_FALSE(IsLoaded());
}

TEST_F(SharedLibraryTest, StaysInMemoryWhileAnyoneHasItLoaded) {
    const auto first = Make();
    first->Load(plugin);
    const Ranges segments = SegmentsOf(plugin);
    EXPECT_FALSE(segments.empty());
    EXPECT_EQ(locked, Ranges(segments.begin(), segments.end()));
    Make()->Load(plugin);
    EXPECT_TRUE(std::includes(locked.begin(), locked.end(), segments.begin(), segments.end()));
    first->Unload();
    EXPECT_TRUE(locked.empty());
    // The program itself, which is not unloaded.
    first->Load("");
    EXPECT_EQ(first->GetFunctionAddress("main"), dlsym(RTLD_DEFAULT, "main"));
    EXPECT_EQ(locked, SegmentsOf(""));
    first->Unload();
    EXPECT_TRUE(locked.empty());
}

TEST_F(SharedLibraryTest, MovedSegmentIsLockedOnce) {
    alignas(4096) static char page[4096];
    {
        LockedMemorySegment first(page, sizeof page);
        LockedMemorySegment second(std::move(first));
        // NOLINTBEGIN(bugprone-use-after-move): it has nothing left.
        EXPECT_TRUE(first.GetAddress() == nullptr && first.GetLength() == 0);
        { const LockedMemorySegment third(std::move(first)); }
        // NOLINTEND(bugprone-use-after-move)
        EXPECT_EQ(locked.size(), 1U);
        first = std::move(second);
        EXPECT_TRUE(first.GetAddress() == page && first.GetLength() == sizeof page);
        // NOLINTNEXTLINE(bugprone-use-after-move): nor has this one.
        EXPECT_TRUE(second.GetAddress() == nullptr && second.GetLength() == 0);
    }
    EXPECT_TRUE(locked.empty());
}

TEST_F(SharedLibraryTest, FailuresAreReported) {
    const auto library = Make();
    EXPECT_TRUE(ComesTo([&] { library->Load("no\\such {0}.so"); },
                        "VeException: Loading of the shared library 'no/such {0}.so' failed with error 'no/such "
                        "{0}.so: cannot open shared object file: No such file or directory'"));
    EXPECT_EQ(library->GetFunctionAddress("main"), nullptr);
    // All of its symbols are looked for at once.
    EXPECT_THROW(library->Load(PluginPath("broken-plugin")), VeException);
    library->Load(plugin);
    void* const handle = dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD);
    dlclose(handle);
    std::ostringstream number;
    number << handle;
    ExpectFailures({
        {"dlclose", [&] { library->Unload(); },
         "VeException: Unload: Unloading of the library with the handle '" + number.str() +
             "' failed with error code -1."},
        {"dlinfo", [&] { Make()->Load(plugin); }, "done"},
        // The loader may give no reason.
        {"dlopen", [&] { Make()->Load("x.so"); },
         "VeException: Loading of the shared library 'x.so' failed with error ''"},
    });
    // It has kept the handle.
    EXPECT_EQ(Answer(*library), 42);
}

// The loader keeps its lock for as long as the library's own code runs.
TEST_F(SharedLibraryTest, LoadingAndUnloadingLetThreadsStartAndAreNotCancelled) {
    std::thread([&] {
        static std::atomic<int> threads;
        threads = 0;
        whileLibraryIsLoaded = [&] {
            const auto thread = Own(factory->CreateThread([](void* /*argument*/) -> void* {
                ++threads;
                return nullptr;
            }));
            thread->StartThread();
            thread->Join();
            pthread_cancel(pthread_self());
            pthread_testcancel();
        };
        const auto library = Make();
        library->Load(plugin);
        library->Unload();
        whileLibraryIsLoaded = nullptr;
        EXPECT_EQ(threads, 2);
        pthread_testcancel();
        ADD_FAILURE() << "the cancellation is lost";
    }).join();
}

}  // namespace

extern "C" void WhileLibraryIsLoaded() {
    if (whileLibraryIsLoaded) {
        whileLibraryIsLoaded();
    }
}
