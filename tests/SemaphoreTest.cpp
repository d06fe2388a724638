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
    const BasicString notFound =
        "SemaphoreService: Named emaphore could not be opened Error: No such file or directory";
};

TEST_F(SemaphoreTest, Counts) {
    const std::unique_ptr<ISemaphoreService> semaphore(factory->CreateSemaphore(2));
    EXPECT_EQ(semaphore->GetName(), "");
    EXPECT_TRUE(semaphore->Wait(0));
    EXPECT_TRUE(semaphore->Wait(1000));
    EXPECT_EQ(semaphore->GetValue(), 0);
    EXPECT_FALSE(semaphore->TryWait());
    const auto start = std::chrono::system_clock::now();
    EXPECT_FALSE(semaphore->Wait(30));
    EXPECT_GE(std::chrono::system_clock::now() - start, std::chrono::milliseconds(30));
    semaphore->Post();
    EXPECT_EQ(semaphore->GetValue(), 1);
    EXPECT_TRUE(semaphore->TryWait());
    EXPECT_FALSE(dynamic_cast<SemaphoreService&>(*semaphore).TimedWait(0));
}

TEST_F(SemaphoreTest, WaitWithoutLimitEndsWithAPost) {
    SemaphoreService there(0);
    SemaphoreService back(0);
    std::thread other([&] {
        EXPECT_TRUE(there.Wait(0));
        back.Post();
    });
    there.Post();
    EXPECT_TRUE(back.Wait(0));
    other.join();
}

TEST_F(SemaphoreTest, NameLivesAsLongAsItsCreator) {
    const mode_t mask = umask(0);
    std::optional<SemaphoreService> creator(std::in_place, name, 1);
    EXPECT_EQ(creator->GetName(), name);
    struct stat status {};
    EXPECT_EQ(stat(("/dev/shm/sem." + name.substr(1)).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0666U);
    EXPECT_TRUE(Throws<AlreadyExistsException>([&] { SemaphoreService(name, 1); },
                                               "SemaphoreService: Semaphore with name " + name + " already exists."));
    umask(mask);
    { const SemaphoreService closedAgain(name); }
    SemaphoreService opener(name);
    creator.reset();
    EXPECT_TRUE(Throws<VeException>([&] { const SemaphoreService tooLate(name); }, notFound));
    EXPECT_TRUE(opener.TryWait());
}

TEST_F(SemaphoreTest, UnlinkedNameIsFreeAndNotUnlinkedAgain) {
    SemaphoreService first(name, 1);
    first.Unlink();
    EXPECT_EQ(first.GetName(), "");
    first.Unlink();
    const SemaphoreService second(name, 1);
    EXPECT_TRUE(Throws<VeException>([&] { first.Post(); }, "Post: Semaphore not initialized."));
}

TEST_F(SemaphoreTest, GoesOnWhenItsCreatorHasDied) {
    Child creator([this] {
        auto* const neverDeleted = new SemaphoreService(name, 0);
        neverDeleted->Post();
        return 0;
    });
    ASSERT_EQ(creator.Wait(), 0);
    SemaphoreService opener(name);
    EXPECT_TRUE(opener.TryWait());
    EXPECT_FALSE(opener.TryWait());
}

TEST_F(SemaphoreTest, RefusesEverythingWhenClosed) {
    SemaphoreService semaphore(name, 1);
    semaphore.Close();
    semaphore.Close();
    const struct {
        const char* operation;
        std::function<void()> call;
    } table[] = {{"Wait", [&] { semaphore.Wait(0); }},
                 {"Wait", [&] { semaphore.Wait(1); }},
                 {"WaitInfinite", [&] { semaphore.WaitInfinite(); }},
                 {"TimedWait", [&] { semaphore.TimedWait(1); }},
                 {"TryWait", [&] { semaphore.TryWait(); }},
                 {"Post", [&] { semaphore.Post(); }},
                 {"GetValue", [&] { semaphore.GetValue(); }}};
    for (const auto& row : table) {
        EXPECT_TRUE(Throws<VeException>(row.call, std::string(row.operation) + ": Semaphore not initialized."));
    }
}

TEST_F(SemaphoreTest, FailedCallsAreReported) {
    SemaphoreService semaphore(1);
    SemaphoreService named(name, 1);
    ExpectFailures(Told::ByNullAndErrno, {{"sem_open", [] { SemaphoreService("/x", 1); },
                                           "SemaphoreService: Named semaphore could not be created. Error: {}"},
                                          {"sem_open", [] { const SemaphoreService opened("/x"); },
                                           "SemaphoreService: Named emaphore could not be opened Error: {}"}});
    ExpectFailures(
        Told::ByErrno,
        {{"sem_init", [] { SemaphoreService(1); }, "SemaphoreService: Unnamed semaphore could not be initiated: {}"},
         {"sem_wait", [&] { semaphore.Wait(0); }, "WaitInfinite: Semaphore could not be waited for: {}"},
         {"sem_wait", [&] { semaphore.WaitThroughSignals(); }, "WaitInfinite: Semaphore could not be waited for: {}"},
         {"sem_trywait", [&] { semaphore.TryWait(); }, "TryWait: Semaphore could not be waited for: {}"},
         {"sem_timedwait", [&] { semaphore.Wait(1); }, "TimedWait: Semaphore could not be timewaited for: {}"},
         {"clock_gettime", [&] { semaphore.Wait(1); }, "Could not compute timeout."},
         {"sem_post", [&] { semaphore.Post(); }, "Post: Semaphore could not be posted: {}"},
         {"sem_getvalue", [&] { semaphore.GetValue(); }, "GetValue: Semaphore value could not be retrieved: {}"},
         {"sem_close", [&] { named.Close(); }, "Close: Semaphore could not be closed: {}"},
         {"sem_unlink", [&] { named.Unlink(); }, "Unlink: Semaphore could not be unlinked: {}"},
         {"sem_destroy", [&] { semaphore.Destroy(); }, "Destroy: Semaphore could not be destroyed: {}"}});
    // After a failure everything is as it was.
    EXPECT_EQ(named.GetValue(), 1);
    EXPECT_EQ(semaphore.GetValue(), 1);
    const FailingCall interrupted("sem_wait", -1, EINTR);
    EXPECT_TRUE(Throws<VeException>([&] { semaphore.Wait(0); },
                                    "WaitInfinite: Semaphore could not be waited for: Interrupted system call"));
}

TEST_F(SemaphoreTest, FailureInTheDestructorEndsTheProcess) {
    Child child([this] {
        const SemaphoreService semaphore(name, 1);
        sem_unlink(name.c_str());
        return 0;
    });
    EXPECT_EQ(child.Wait(), 128 + SIGABRT);
}

}  // namespace
