#include "support/Test.h"

#include <sys/stat.h>

#include <optional>

namespace {

class SemaphoreTest : public FactoryTest {
protected:
    const BasicString name = UniqueName("semaphore");
    SemaphoreService named{name, 1};
    SemaphoreService unnamed{1};
};

TEST_F(SemaphoreTest, WaitIsACancellationPointAlsoWhenItDoesNotWait) {
    EXPECT_FALSE(HasNoCancellationPoint([&] { unnamed.Wait(1); }));
    EXPECT_EQ(unnamed.GetValue(), 1);
}

TEST_F(SemaphoreTest, NameLivesAsLongAsItsCreatorOrUntilItIsUnlinked) {
    const BasicString other = name + "-other";
    const mode_t mask = umask(0);
    std::optional<SemaphoreService> creator(std::in_place, other, 1);
    umask(mask);
    struct stat status {};
    EXPECT_EQ(stat(("/dev/shm/sem." + other.substr(1)).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0666U);
    EXPECT_TRUE(ComesTo([&] { return factory->CreateSemaphore(other, 1); },
                        "AlreadyExistsException: SemaphoreService: Semaphore with name " + other + " already exists."));
    { const SemaphoreService closedAgain(other); }
    SemaphoreService opener(other);
    creator.reset();
    EXPECT_TRUE(
        ComesTo([&] { return factory->CreateSemaphore(other); },
                "VeException: SemaphoreService: Named emaphore could not be opened Error: No such file or directory"));
    EXPECT_TRUE(opener.TryWait());

    creator.emplace(other, 0);
    creator->Unlink();
    EXPECT_EQ(creator->GetName(), "");
    const SemaphoreService successor(other, 1);
    creator.reset();
    EXPECT_EQ(SemaphoreService(other).GetValue(), 1);
}

TEST_F(SemaphoreTest, ClosedSemaphoreRefusesEverything) {
    EXPECT_EQ(CallsOf("sem_close", [&] { named.Destroy(), named.Close(); }).size(), 1U);
    EXPECT_EQ(CallsOf("sem_destroy", [] { SemaphoreService(1).Destroy(); }).size(), 1U);
    const std::pair<std::string, Operation> table[] = {
        {"Wait", [&] { named.Wait(0); }},        {"WaitInfinite", [&] { named.WaitInfinite(); }},
        {"Wait", [&] { named.Wait(1); }},        {"TimedWait", [&] { named.TimedWait(1); }},
        {"TryWait", [&] { named.TryWait(); }},   {"WaitRetryingOnEintr", [&] { named.WaitRetryingOnEintr(); }},
        {"GetValue", [&] { named.GetValue(); }}, {"Post", [&] { named.Post(); }},
    };
    for (const auto& [text, operation] : table) {
        EXPECT_TRUE(ComesTo(operation, "VeException: " + text + ": Semaphore not initialized."));
    }
}

TEST_F(SemaphoreTest, FailuresAreReported) {
    const std::string denied = ": Permission denied";
    const std::string create = "VeException: SemaphoreService: ";
    ExpectFailures({
        {"sem_init", [&] { return factory->CreateSemaphore(1); },
         create + "Unnamed semaphore could not be initiated" + denied},
        {"sem_open", [&] { return factory->CreateSemaphore("/free", 1); },
         create + "Named semaphore could not be created. Error" + denied},
        {"sem_open", [&] { return factory->CreateSemaphore(name); },
         create + "Named emaphore could not be opened Error" + denied},
        // What could not be released is as good as before.
        {"sem_close", [&] { named.Close(); }, "VeException: Close: Semaphore could not be closed" + denied},
        {"sem_destroy", [&] { unnamed.Destroy(); }, "VeException: Destroy: Semaphore could not be destroyed" + denied},
        {"sem_wait", [&] { unnamed.Wait(0); },
         "VeException: WaitInfinite: Semaphore could not be waited for: Interrupted system call", 0, EINTR},
        {"sem_wait", [] { SemaphoreService(1).WaitRetryingOnEintr(); }, "done", 0, EINTR},
        {"sem_wait", [&] { unnamed.WaitRetryingOnEintr(); },
         "VeException: WaitInfinite: Semaphore could not be waited for" + denied},
        {"sem_trywait", [&] { unnamed.TryWait(); }, "VeException: TryWait: Semaphore could not be waited for" + denied},
        {"sem_trywait", [&] { unnamed.TimedWait(1); },
         "VeException: TimedWait: Semaphore could not be timewaited for" + denied},
        {"sem_timedwait", [] { SemaphoreService(0).TimedWait(1); },
         "VeException: TimedWait: Semaphore could not be timewaited for" + denied},
        {"sem_post", [&] { unnamed.Post(); }, "VeException: Post: Semaphore could not be posted" + denied},
        {"sem_getvalue", [&] { named.GetValue(); },
         "VeException: GetValue: Semaphore value could not be retrieved" + denied},
        {"sem_unlink", [&] { named.Unlink(); }, "VeException: Unlink: Semaphore could not be unlinked" + denied},
        {"sem_close", [&] { SemaphoreService(name + "-other", 1).Unlink(); }, "done"},
        {"sem_close", [&] { const SemaphoreService opener(name); },
         "ends the process: VeException: Close: Semaphore could not be closed" + denied},
    });
}

}  // namespace
