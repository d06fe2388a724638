#include "support/Test.h"

#include <dlfcn.h>
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

class SharedLibraryTest : public FactoryTest {
protected:
    std::unique_ptr<ISharedLibraryService> Make() {
        return std::unique_ptr<ISharedLibraryService>(factory->CreateSharedLibrary());
    }

    static int Answer(const ISharedLibraryService& library) {
        void* const function = library.GetFunctionAddress("PluginAnswer");
        return function != nullptr ? reinterpret_cast<int (*)()>(function)() : -1;
    }

    static BasicString Folder() {
        const BasicString program = ProcessServiceBase::GetCurrentName();
        return program.substr(0, program.rfind('/') + 1);
    }

    const BasicString plugin = Folder() + "libve-tests-plugin.so";
};

TEST_F(SharedLibraryTest, LoadsAndUnloads) {
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
    library->Load(plugin);
    EXPECT_EQ(Answer(*library), 42);
}

TEST_F(SharedLibraryTest, StaysInMemoryWhileAnyoneHasItLoaded) {
    const long before = LockedKilobytes();
    const long atLeast = CanLockMemory() ? 1024 : 0;
    const auto first = Make();
    first->Load(plugin);
    const long locked = LockedKilobytes();
    EXPECT_GE(locked, before + atLeast);
    {
        const auto second = Make();
        second->Load(plugin);
        EXPECT_EQ(LockedKilobytes(), locked);
    }
    EXPECT_EQ(LockedKilobytes(), locked);
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
        // NOLINTBEGIN(bugprone-use-after-move, clang-analyzer-cplusplus.Move): it has nothing left.
        EXPECT_EQ(first.GetAddress(), nullptr);
        EXPECT_EQ(first.GetLength(), 0U);
        { const LockedMemorySegment third(std::move(first)); }
        // NOLINTEND(bugprone-use-after-move, clang-analyzer-cplusplus.Move)
        EXPECT_EQ(LockedKilobytes(), locked);
        first = std::move(second);
        EXPECT_EQ(first.GetAddress(), page);
        EXPECT_EQ(first.GetLength(), sizeof page);
    }
    EXPECT_EQ(LockedKilobytes(), before);
}

TEST_F(SharedLibraryTest, ProgramItselfCanBeLoaded) {
    const auto library = Make();
    library->Load("");
    EXPECT_EQ(library->GetFunctionAddress("main"), dlsym(RTLD_DEFAULT, "main"));
}

TEST_F(SharedLibraryTest, FailuresAreReported) {
    const auto library = Make();
    EXPECT_TRUE(Throws<VeException>([&] { library->Load("no\\such {0}.so"); },
                                    "Loading of the shared library 'no/such {0}.so' failed with error 'no/such {0}.so: "
                                    "cannot open shared object file: No such file or directory'"));
    EXPECT_EQ(library->GetFunctionAddress("main"), nullptr);
    library->Load(plugin);
    void* const handle = dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD);
    dlclose(handle);
    std::ostringstream message;
    message << "Unload: Unloading of the library with the handle '" << handle << "' failed with error code 5.";
    const FailingCall call("dlclose", 5, 0);
    EXPECT_TRUE(Throws<VeException>([&] { library->Unload(); }, message.str()));
    EXPECT_EQ(Answer(*library), 42);
}

TEST_F(SharedLibraryTest, VeLibraryKnowsItsPath) {
    const BasicString path = SharedLibraryServiceBase::GetPathOfVeLibrary();
    EXPECT_NE(path.find("libKel.System.Ve.so"), std::string::npos);
    EXPECT_TRUE(FileServiceBase::Exists(path));
}

}  // namespace
