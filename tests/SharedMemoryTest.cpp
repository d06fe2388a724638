#include "support/Test.h"
#include "support/UniqueName.h"

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
        return std::unique_ptr<ISharedMemoryService>(factory->CreateSharedMemory(name, size, mode));
    }

    bool NameExists() const {
        const int descriptor = shm_open(name.c_str(), O_RDONLY, 0);
        close(descriptor);
        return descriptor != -1;
    }

    const BasicString name = UniqueName("memory");
};

TEST_F(SharedMemoryTest, IsSeenByOtherProcessesAndOutlivesItsObjects) {
    EXPECT_TRUE(Throws<Exception>([this] { Make(openExisting); },
                                  "Open: Shared Memory <" + name + "> could not be opened: No such file or directory"));
    const mode_t mask = umask(0);
    const int descriptor = NextDescriptor();
    auto memory = Make(create);
    umask(mask);
    struct stat status {};
    EXPECT_EQ(fstat(descriptor, &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0666U);
    EXPECT_EQ(memory->GetName(), name);
    EXPECT_EQ(memory->GetSize(), 5000U);
    auto* const bytes = static_cast<volatile char*>(memory->GetAddress());
    EXPECT_EQ(bytes[4999], 0);
    // Opened anew: what was inherited would show it, too.
    EXPECT_TRUE(SucceedsInChild([this] { static_cast<char*>(Make(openExisting)->GetAddress())[4999] = 'x'; }));
    EXPECT_EQ(bytes[4999], 'x');
    memory.reset();
    EXPECT_EQ(bytes[4999], 'x');
    EXPECT_EQ(static_cast<char*>(Make(static_cast<ISharedMemoryService::mode>(7))->GetAddress())[4999], 'x');
    EXPECT_EQ(static_cast<char*>(Make(create)->GetAddress())[4999], 0);
    EXPECT_EQ(bytes[4999], 0);
    // A mapping of nothing is refused; the name stays.
    EXPECT_TRUE(Throws<Exception>([this] { Make(create, 0); },
                                  "MapMemory: Shared Memory <" + name + "> could not be mapped: Invalid argument"));
    EXPECT_TRUE(NameExists());
}

TEST_F(SharedMemoryTest, ClosingKeepsTheNameAndUnlinkingTheDescriptor) {
    const auto memory = Make(create);
    memory->Close();
    memory->Unlink();
    memory->Close();
    EXPECT_TRUE(NameExists());

    const int descriptor = NextDescriptor();
    const auto again = Make(openExisting);
    EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    again->Unlink();
    EXPECT_FALSE(NameExists());
    again->Unlink();
    again->Close();
    EXPECT_EQ(close(descriptor), 0);
    static_cast<char*>(again->GetAddress())[0] = 'x';
}

TEST_F(SharedMemoryTest, DescriptorZeroCountsAsNone) {
    EXPECT_TRUE(SucceedsInChild([this] {
        close(0);
        const auto memory = Make(create);
        memory->Close();
        memory->Unlink();
        EXPECT_TRUE(NameExists());
        EXPECT_NE(fcntl(0, F_GETFD), -1);
    }));
}

}  // namespace
