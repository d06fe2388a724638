#include "support/Test.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

using Mode = ISharedMemoryService::mode;

class SharedMemoryTest : public FactoryTest {
protected:
    ~SharedMemoryTest() override { std::filesystem::remove(file); }

    std::unique_ptr<ISharedMemoryService> Make(Mode mode, unsigned int size = 5000) {
        return Own(factory->CreateSharedMemory(name, size, mode));
    }

    static volatile char& LastByte(ISharedMemoryService& memory) {
        return static_cast<volatile char*>(memory.GetAddress())[4999];
    }

    const BasicString name = UniqueName("memory");
    const std::string file = "/dev/shm" + name;
};

TEST_F(SharedMemoryTest, IsSeenByOtherProcessesAndOutlivesItsObjects) {
    const mode_t mask = umask(0);
    volatile char& lastByte = LastByte(*Make(Mode::Create));
    umask(mask);
    EXPECT_EQ(static_cast<int>(std::filesystem::status(file).permissions()), 0666);
    // Opened anew, by any mode but that of creating: what was inherited would show it, too.
    EXPECT_TRUE(SucceedsInChild([this] { LastByte(*Make(static_cast<Mode>(7), 4999)) = 'x'; }));
    EXPECT_EQ(lastByte, 'x');
    EXPECT_EQ(std::filesystem::file_size(file), 5000U);
    const auto again = Make(Mode::Create, 6000);
    EXPECT_EQ(std::filesystem::file_size(file), 6000U);
    EXPECT_EQ(lastByte, 0);
    EXPECT_EQ(again->GetName() + std::to_string(again->GetSize()), name + "6000");
}

TEST_F(SharedMemoryTest, MayHave2GiB) {
    std::uintptr_t mapped = 0;
    // Not mapped in fact: a 32-bit process may not have the room.
    const Interposition call("mmap", [&](const auto& arguments) {
        mapped = static_cast<std::uintptr_t>(arguments[1]);
        return 0;
    });
    const auto memory = Make(Mode::Create, 0x80000000);
    EXPECT_EQ(mapped, 0x80000000);
    EXPECT_EQ(std::filesystem::file_size(file), 0x80000000);
    EXPECT_TRUE(ComesTo([&] { memory->GetAddress(); }, "Exception: GetAddress: Shared Memory <" + name + ">: nullptr"));
}

TEST_F(SharedMemoryTest, ClosingKeepsTheNameAndUnlinkingTheDescriptor) {
    const auto closed = Make(Mode::Create);
    EXPECT_TRUE(HasNoCancellationPoint([&] { EXPECT_EQ(CountCallsOfTwo("close", [&] { closed->Close(); }), 1); }));
    closed->Unlink();
    EXPECT_TRUE(std::filesystem::exists(file));

    const int descriptor = NextDescriptor();
    const auto unlinked = Make(Mode::Open);
    EXPECT_EQ(CountCallsOfTwo("shm_unlink", [&] { unlinked->Unlink(); }), 1);
    EXPECT_FALSE(std::filesystem::exists(file));
    unlinked->Close();
    EXPECT_EQ(close(descriptor), 0);
}

TEST_F(SharedMemoryTest, FailuresAreReported) {
    const std::string memory = ": Shared Memory <" + name + "> could not be ";
    const int descriptor = NextDescriptor();
    const auto closed = Make(Mode::Create);
    const auto unlinked = Make(Mode::Open);
    const auto make = [this] { Make(Mode::Create); };
    ExpectFailures({
        {"shm_open", make, "Exception: Create" + memory + "created: Permission denied"},
        {"shm_open", [this] { Make(Mode::Open); }, "Exception: Open" + memory + "opened: Permission denied"},
        {"ftruncate", make, "Exception: TruncateMemory" + memory + "truncated to 5000 length: Permission denied"},
        {"mmap", make, "Exception: MapMemory" + memory + "mapped: Permission denied"},
        {"close", [&] { closed->Close(); }, "Exception: Close" + memory + "closed: Permission denied"},
        {"close", make, "ends the process: Exception: Close" + memory + "closed: Permission denied"},
        {"shm_unlink", [&] { unlinked->Unlink(); }, "Exception: Unlink" + memory + "unlinked: Permission denied"},
    });
    // What could not be closed or unlinked is given up.
    EXPECT_EQ(close(descriptor) + close(descriptor + 1), 0);
}

}  // namespace
