#include "support/Test.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace {

constexpr auto create = ISharedMemoryService::mode::Create;
constexpr auto openExisting = ISharedMemoryService::mode::Open;

class SharedMemoryTest : public FactoryTest {
protected:
    ~SharedMemoryTest() override { shm_unlink(name.c_str()); }

    std::unique_ptr<ISharedMemoryService> Make(ISharedMemoryService::mode mode, unsigned int size = 5000) {
        return Own(factory->CreateSharedMemory(name, size, mode));
    }

    /// The size and the permissions of what has the name; "none" when nothing has.
    std::string WhatIsThere() const {
        const int descriptor = shm_open(name.c_str(), O_RDONLY, 0);
        struct stat status {};
        const bool isThere = fstat(descriptor, &status) == 0;
        close(descriptor);
        std::ostringstream text;
        text << status.st_size << " bytes, " << std::oct << (status.st_mode & 0777U);
        return isThere ? text.str() : "none";
    }

    const BasicString name = UniqueName("memory");
};

TEST_F(SharedMemoryTest, IsSeenByOtherProcessesAndOutlivesItsObjects) {
    const mode_t mask = umask(0);
    auto memory = Make(create);
    umask(mask);
    EXPECT_EQ(WhatIsThere(), "5000 bytes, 666");
    EXPECT_EQ(memory->GetName(), name);
    EXPECT_EQ(memory->GetSize(), 5000U);
    auto* const bytes = static_cast<volatile char*>(memory->GetAddress());
    // Opened anew: what was inherited would show it, too.
    EXPECT_TRUE(SucceedsInChild([this] { static_cast<char*>(Make(openExisting)->GetAddress())[4999] = 'x'; }));
    EXPECT_EQ(bytes[4999], 'x');
    memory.reset();
    EXPECT_EQ(bytes[4999], 'x');
    // Any mode but that of creating opens.
    EXPECT_EQ(static_cast<char*>(Make(static_cast<ISharedMemoryService::mode>(7))->GetAddress())[4999], 'x');
    EXPECT_EQ(Make(openExisting, 100)->GetSize(), 100U);
    EXPECT_EQ(WhatIsThere(), "5000 bytes, 666");
    Make(create, 6000);
    EXPECT_EQ(bytes[4999], 0);
    EXPECT_EQ(WhatIsThere(), "6000 bytes, 666");
}

TEST_F(SharedMemoryTest, MayHave2GiB) {
    std::uintptr_t mapped = 0;
    // Not really: a 32-bit process has no place for it.
    const Interposition call("mmap", [&](const Interposition::Arguments& arguments) -> std::intptr_t {
        mapped = static_cast<std::uintptr_t>(arguments[1]);
        return 0;
    });
    const auto memory = Make(create, 0x80000000);
    EXPECT_EQ(mapped, 0x80000000);
    EXPECT_EQ(WhatIsThere().substr(0, 16), "2147483648 bytes");
    EXPECT_TRUE(ComesTo([&] { memory->GetAddress(); }, "Exception: GetAddress: Shared Memory <" + name + ">: nullptr"));
}

TEST_F(SharedMemoryTest, ClosingKeepsTheNameAndUnlinkingTheDescriptor) {
    const auto memory = Make(create);
    memory->Close();
    memory->Unlink();
    memory->Close();
    EXPECT_NE(WhatIsThere(), "none");

    const int descriptor = NextDescriptor();
    const auto again = Make(openExisting);
    again->Unlink();
    EXPECT_EQ(WhatIsThere(), "none");
    again->Unlink();
    again->Close();
    EXPECT_EQ(close(descriptor), 0);
    static_cast<char*>(again->GetAddress())[0] = 'x';
}

TEST_F(SharedMemoryTest, OfTwoThatCloseOrUnlinkOneDoes) {
    const std::pair<const char*, void (ISharedMemoryService::*)()> table[] = {
        {"close", &ISharedMemoryService::Close}, {"shm_unlink", &ISharedMemoryService::Unlink}};
    for (const auto& [function, operation] : table) {
        const int descriptor = NextDescriptor();
        const auto memory = Make(create);
        int calls = 0;
        const Interposition call(function, [&, &end = operation](const Interposition::Arguments& /*arguments*/) {
            if (++calls == 1) {
                (*memory.*end)();
            }
            return 0;
        });
        (*memory.*operation)();
        EXPECT_EQ(calls, 1) << function;
        EXPECT_EQ(close(descriptor), 0);
    }
}

TEST_F(SharedMemoryTest, ClosingIsNoCancellationPoint) {
    auto memory = Make(create);
    auto deleted = Make(create);
    const std::ptrdiff_t open = OpenDescriptors();
    std::thread([&] {
        pthread_cancel(pthread_self());
        memory->Close();
        deleted.reset();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }).join();
    EXPECT_EQ(OpenDescriptors(), open - 2);
    EXPECT_EQ(deleted, nullptr);
}

TEST_F(SharedMemoryTest, DescriptorZeroCountsAsNone) {
    EXPECT_TRUE(SucceedsInChild([this] {
        close(0);
        const auto memory = Make(create);
        memory->Close();
        memory->Unlink();
        EXPECT_NE(fcntl(0, F_GETFD), -1);
        EXPECT_NE(WhatIsThere(), "none");
    }));
}

TEST_F(SharedMemoryTest, FailuresAreReported) {
    const std::string memoryName = ": Shared Memory <" + name + "> could not be ";
    EXPECT_TRUE(
        ComesTo([this] { Make(openExisting); }, "Exception: Open" + memoryName + "opened: No such file or directory"));
    const int descriptor = NextDescriptor();
    const auto closed = Make(create);
    const auto unlinked = Make(openExisting);
    const auto make = [this] { Make(create); };
    ExpectFailures({
        {"shm_open", make, "Exception: Create" + memoryName + "created: Permission denied"},
        {"ftruncate", make, "Exception: TruncateMemory" + memoryName + "truncated to 5000 length: Permission denied"},
        {"mmap", make, "Exception: MapMemory" + memoryName + "mapped: Permission denied"},
        {"mmap", [this] { Make(openExisting); }, "Exception: MapMemory" + memoryName + "mapped: Permission denied"},
        {"close", [&] { closed->Close(); }, "Exception: Close" + memoryName + "closed: Permission denied"},
        {"close", make, "ends the process: Exception: Close" + memoryName + "closed: Permission denied"},
        {"shm_unlink", [&] { unlinked->Unlink(); }, "Exception: Unlink" + memoryName + "unlinked: Permission denied"},
    });
    // What could not be closed or unlinked is given up.
    closed->Close();
    unlinked->Unlink();
    EXPECT_NE(WhatIsThere(), "none");
    EXPECT_EQ(close(descriptor), 0);
    EXPECT_EQ(close(descriptor + 1), 0);
}

}  // namespace
