#include "support/PluginPath.h"
#include "support/Test.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>

#include <algorithm>
#include <fstream>

namespace {

long LockedKilobytes() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word && word != "VmLck:") {
    }
    long kilobytes = -1;
    status >> kilobytes;
    return kilobytes;
}

// Sanitizers leave mlock out, and there may be no right to it.
bool CanLockMemory() {
    alignas(4096) static char page[4096];
    const long before = LockedKilobytes();
    mlock(page, sizeof page);
    const bool can = LockedKilobytes() > before;
    munlock(page, sizeof page);
    return can;
}

// The pages of the segments that a library is loaded to.
long LoadedKilobytes(const std::string& name) {
    std::pair<std::string, long> search(name, 0);
    dl_iterate_phdr(
        [](dl_phdr_info* module, std::size_t, void* argument) {
            auto& [wanted, sum] = *static_cast<std::pair<std::string, long>*>(argument);
            for (int i = 0; std::string(module->dlpi_name).find(wanted) != std::string::npos && i < module->dlpi_phnum;
                 ++i) {
                const auto& header = module->dlpi_phdr[i];
                const long first = static_cast<long>(header.p_vaddr) / 4096;
                const long last = (static_cast<long>(header.p_vaddr + header.p_memsz) + 4095) / 4096;
                sum += header.p_type == PT_LOAD ? (last - first) * 4 : 0;
            }
            return 0;
        },
        &search);
    return search.second;
}

std::function<void()> whileLibraryIsLoaded;

class SharedLibraryTest : public FactoryTest {
protected:
    std::unique_ptr<ISharedLibraryService> Make() {
        return std::unique_ptr<ISharedLibraryService>(factory->CreateSharedLibrary());
    }

    static int Answer(const ISharedLibraryService& library) {
        void* const function = library.GetFunctionAddress("PluginAnswer");
        return function != nullptr ? reinterpret_cast<int (*)()>(function)() : -1;
    }

    const BasicString plugin = PluginPath();
};

TEST_F(SharedLibraryTest, LoadsAndUnloads) {
    EXPECT_NE(SharedLibraryServiceBase::GetPathOfVeLibrary().find("libKel.System.Ve.so"), std::string::npos);
    const auto library = Make();
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
    EXPECT_EQ(dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    library->Unload();
    {
        const auto deleted = Make();
        deleted->Load(plugin);
        EXPECT_EQ(Answer(*deleted), 42);
    }
    EXPECT_EQ(dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

TEST_F(SharedLibraryTest, StaysInMemoryWhileAnyoneHasItLoaded) {
    const long before = LockedKilobytes();
    const auto first = Make();
    first->Load(plugin);
    const long locked = LockedKilobytes();
    EXPECT_EQ(locked, before + (CanLockMemory() ? LoadedKilobytes("libve-tests-plugin.so") : 0));
    {
        const auto second = Make();
        second->Load(plugin);
        EXPECT_EQ(LockedKilobytes(), locked);
    }
    EXPECT_EQ(LockedKilobytes(), locked);
    first->Unload();
    EXPECT_EQ(LockedKilobytes(), before);
    // Itself it is not unloaded.
    first->Load("");
    EXPECT_EQ(first->GetFunctionAddress("main"), dlsym(RTLD_DEFAULT, "main"));
    first->Unload();
    EXPECT_EQ(LockedKilobytes(), before);
}

TEST_F(SharedLibraryTest, MovedSegmentIsLockedOnce) {
    alignas(4096) static char page[4096];
    const long before = LockedKilobytes();
    {
        LockedMemorySegment first(page, sizeof page);
        LockedMemorySegment second(std::move(first));
        const long locked = LockedKilobytes();
        EXPECT_GE(locked, before + (CanLockMemory() ? 4 : 0));
        // NOLINTBEGIN(bugprone-use-after-move): it has nothing left.
        EXPECT_TRUE(first.GetAddress() == nullptr && first.GetLength() == 0);
        { const LockedMemorySegment third(std::move(first)); }
        // NOLINTEND(bugprone-use-after-move)
        EXPECT_EQ(LockedKilobytes(), locked);
        first = std::move(second);
        EXPECT_TRUE(first.GetAddress() == page && first.GetLength() == sizeof page);
        // NOLINTNEXTLINE(bugprone-use-after-move): nor has this one.
        EXPECT_TRUE(second.GetAddress() == nullptr && second.GetLength() == 0);
    }
    EXPECT_EQ(LockedKilobytes(), before);
}

TEST_F(SharedLibraryTest, FailuresAreReported) {
    const auto library = Make();
    EXPECT_TRUE(Throws<VeException>([&] { library->Load("no\\such {0}.so"); },
                                    "Loading of the shared library 'no/such {0}.so' failed with error 'no/such {0}.so: "
                                    "cannot open shared object file: No such file or directory'"));
    EXPECT_EQ(library->GetFunctionAddress("main"), nullptr);
    // All of its symbols are looked for at once.
    EXPECT_THROW(library->Load(PluginPath("broken-plugin")), VeException);
}

// The loader keeps its lock for as long as the library's own code runs.
TEST_F(SharedLibraryTest, LoadingAndUnloadingLetThreadsStartAndAreNotCancelled) {
    std::thread([&] {
        static std::atomic<int> threads;
        threads = 0;
        const auto runThread = [&] {
            const std::unique_ptr<IThreadService> thread(factory->CreateThread([](void*) -> void* {
                ++threads;
                return nullptr;
            }));
            thread->StartThread();
            thread->Join();
        };
        // Once before: who intercepts a call for the first time asks the loader for it.
        runThread();
        whileLibraryIsLoaded = [&] {
            runThread();
            pthread_cancel(pthread_self());
            pthread_testcancel();
        };
        const auto library = Make();
        library->Load(PluginPath());
        library->Unload();
        whileLibraryIsLoaded = nullptr;
        EXPECT_EQ(threads, 3);
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
