#include "support/Test.h"
#include "support/UniqueName.h"

#include <semaphore.h>
#include <sys/stat.h>

#include <optional>
#include <type_traits>

namespace {

// The handle points into the object.
static_assert(!std::is_copy_constructible_v<SemaphoreService> && !std::is_move_constructible_v<SemaphoreService>);

class SemaphoreTest : public FactoryTest {
protected:
    ~SemaphoreTest() override { sem_unlink(name.c_str()); }

    const BasicString name = UniqueName("semaphore");
};

TEST_F(SemaphoreTest, CountsAndWakesThoseWhoWait) {
    SemaphoreService semaphore(2);
    EXPECT_EQ(semaphore.GetName(), "");
    EXPECT_TRUE(semaphore.Wait(1000));
    EXPECT_TRUE(semaphore.Wait(0));
    EXPECT_FALSE(semaphore.TryWait());
    EXPECT_FALSE(semaphore.TimedWait(0));
    EXPECT_TRUE(Takes<system_clock>(milliseconds(30), [&] { EXPECT_FALSE(semaphore.Wait(30)); }));
    SemaphoreService back(0);
    std::thread other([&] {
        EXPECT_TRUE(semaphore.Wait(0));
        back.Post();
    });
    semaphore.Post();
    EXPECT_TRUE(back.Wait(0));
    other.join();
    EXPECT_EQ(semaphore.GetValue(), 0);
}

TEST_F(SemaphoreTest, NameLivesAsLongAsItsCreatorOrUntilItIsUnlinked) {
    const mode_t mask = umask(0);
    std::optional<SemaphoreService> creator(std::in_place, name, 1);
    umask(mask);
    EXPECT_EQ(creator->GetName(), name);
    struct stat status {};
    EXPECT_EQ(stat(("/dev/shm/sem." + name.substr(1)).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0666U);
    EXPECT_TRUE(Throws<AlreadyExistsException>([&] { SemaphoreService(name, 1); },
                                               "SemaphoreService: Semaphore with name " + name + " already exists."));
    { const SemaphoreService closedAgain(name); }
    SemaphoreService opener(name);
    creator.reset();
    EXPECT_TRUE(Throws([&] { const SemaphoreService tooLate(name); },
                       "SemaphoreService: Named emaphore could not be opened Error: No such file or directory"));
    EXPECT_TRUE(opener.TryWait());

    creator.emplace(name, 1);
    creator->Unlink();
    EXPECT_EQ(creator->GetName(), "");
    creator->Unlink();
    const SemaphoreService successor(name, 1);
    EXPECT_TRUE(Throws([&] { creator->Post(); }, "Post: Semaphore not initialized."));
    creator.reset();
    EXPECT_EQ(SemaphoreService(name).GetValue(), 1);
}

TEST_F(SemaphoreTest, RefusesEverythingWhenClosed) {
    SemaphoreService semaphore(name, 1);
    semaphore.Close();
    semaphore.Close();
    const std::pair<std::string, std::function<void()>> table[] = {{"Wait", [&] { semaphore.Wait(0); }},
                                                                   {"Wait", [&] { semaphore.Wait(1); }},
                                                                   {"WaitInfinite", [&] { semaphore.WaitInfinite(); }},
                                                                   {"TimedWait", [&] { semaphore.TimedWait(1); }},
                                                                   {"TryWait", [&] { semaphore.TryWait(); }},
                                                                   {"Post", [&] { semaphore.Post(); }},
                                                                   {"GetValue", [&] { semaphore.GetValue(); }}};
    for (const auto& [operation, call] : table) {
        EXPECT_TRUE(Throws(call, operation + ": Semaphore not initialized."));
    }
}

TEST_F(SemaphoreTest, IsGoodWhenItCouldNotBeDestroyed) {
    SemaphoreService semaphore(1);
    const FailingCall call("sem_destroy", -1, EACCES);
    EXPECT_THROW(semaphore.Destroy(), VeException);
    EXPECT_EQ(semaphore.GetValue(), 1);
}

TEST_F(SemaphoreTest, InterruptionIsReported) {
    SemaphoreService semaphore(1);
    const FailingCall interrupted("sem_wait", -1, EINTR);
    EXPECT_TRUE(
        Throws([&] { semaphore.Wait(0); }, "WaitInfinite: Semaphore could not be waited for: Interrupted system call"));
}

}  // namespace
