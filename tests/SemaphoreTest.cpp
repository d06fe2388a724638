#include "support/Test.h"

#include <sys/stat.h>

#include <optional>

namespace {

using SemaphoreTest = FactoryTest;

TEST_F(SemaphoreTest, Counts) {
    SemaphoreService semaphore(2);
    EXPECT_EQ(semaphore.GetName(), "");
    EXPECT_TRUE(semaphore.Wait(1));
    EXPECT_EQ(semaphore.GetValue(), 1);
    EXPECT_TRUE(semaphore.TryWait());
    EXPECT_FALSE(semaphore.TryWait());
    EXPECT_FALSE(semaphore.TimedWait(0));
    EXPECT_FALSE(semaphore.Wait(1));
    semaphore.Post();
    EXPECT_TRUE(semaphore.Wait(0));
}

TEST_F(SemaphoreTest, WaitIsACancellationPointAlsoWhenItDoesNotWait) {
    SemaphoreService semaphore(1);
    std::thread([&] {
        pthread_cancel(pthread_self());
        semaphore.Wait(1);
    }).join();
    EXPECT_EQ(semaphore.GetValue(), 1);
}

TEST_F(SemaphoreTest, NameLivesAsLongAsItsCreator) {
    const BasicString name = UniqueName("semaphore");
    const mode_t mask = umask(0);
    std::optional<SemaphoreService> creator(std::in_place, name, 1);
    umask(mask);
    EXPECT_EQ(creator->GetName(), name);
    struct stat status {};
    EXPECT_EQ(stat(("/dev/shm/sem." + name.substr(1)).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0666U);
    EXPECT_TRUE(ComesTo([&] { return factory->CreateSemaphore(name, 1); },
                        "AlreadyExistsException: SemaphoreService: Semaphore with name " + name + " already exists."));
    { const SemaphoreService closedAgain(name); }
    SemaphoreService opener(name);
    EXPECT_EQ(LiveObjects(), 2U);
    creator.reset();
    EXPECT_TRUE(
        ComesTo([&] { return factory->CreateSemaphore(name); },
                "VeException: SemaphoreService: Named emaphore could not be opened Error: No such file or directory"));
    EXPECT_TRUE(opener.TryWait());
}

TEST_F(SemaphoreTest, UnlinkedNameIsFreeForOthers) {
    const BasicString name = UniqueName("semaphore");
    std::optional<SemaphoreService> creator(std::in_place, name, 0);
    creator->Unlink();
    EXPECT_EQ(creator->GetName(), "");
    creator->Unlink();
    SemaphoreService successor(name, 1);
    EXPECT_TRUE(ComesTo([&] { creator->Post(); }, "VeException: Post: Semaphore not initialized."));
    creator.reset();
    EXPECT_EQ(SemaphoreService(name).GetValue(), 1);
}

TEST_F(SemaphoreTest, ClosedSemaphoreRefusesEverything) {
    const BasicString name = UniqueName("semaphore");
    SemaphoreService closed(name, 1);
    closed.Close();
    closed.Close();
    EXPECT_EQ(CallsOf("sem_destroy", [] { SemaphoreService(1).Destroy(); }).size(), 1U);
    const std::pair<Operation, std::string> table[] = {
        {[&] { closed.Wait(0); }, "Wait"},        {[&] { closed.WaitInfinite(); }, "WaitInfinite"},
        {[&] { closed.Wait(1); }, "Wait"},        {[&] { closed.TimedWait(1); }, "TimedWait"},
        {[&] { closed.TryWait(); }, "TryWait"},   {[&] { closed.WaitRetryingOnEintr(); }, "WaitRetryingOnEintr"},
        {[&] { closed.GetValue(); }, "GetValue"},
    };
    for (const auto& [operation, text] : table) {
        EXPECT_TRUE(ComesTo(operation, "VeException: " + text + ": Semaphore not initialized."));
    }
}

TEST_F(SemaphoreTest, FailuresAreReported) {
    const BasicString name = UniqueName("semaphore");
    SemaphoreService named(name, 1);
    SemaphoreService unnamed(1);
    SemaphoreService empty(0);
    ExpectFailures({
        {"sem_init", [&] { return factory->CreateSemaphore(1); },
         "VeException: SemaphoreService: Unnamed semaphore could not be initiated: Permission denied"},
        {"sem_open", [&] { return factory->CreateSemaphore("/free", 1); },
         "VeException: SemaphoreService: Named semaphore could not be created. Error: Permission denied"},
        {"sem_open", [&] { return factory->CreateSemaphore(name); },
         "VeException: SemaphoreService: Named emaphore could not be opened Error: Permission denied"},
        // What could not be released is as good as before.
        {"sem_close", [&] { named.Close(); }, "VeException: Close: Semaphore could not be closed: Permission denied"},
        {"sem_destroy", [&] { unnamed.Destroy(); },
         "VeException: Destroy: Semaphore could not be destroyed: Permission denied"},
        {"sem_wait", [&] { unnamed.Wait(0); },
         "VeException: WaitInfinite: Semaphore could not be waited for: Interrupted system call", 0, EINTR},
        {"sem_wait", [] { SemaphoreService(1).WaitRetryingOnEintr(); }, "done", 0, EINTR},
        {"sem_wait", [&] { unnamed.WaitRetryingOnEintr(); },
         "VeException: WaitInfinite: Semaphore could not be waited for: Permission denied"},
        {"sem_trywait", [&] { unnamed.TryWait(); },
         "VeException: TryWait: Semaphore could not be waited for: Permission denied"},
        {"sem_trywait", [&] { unnamed.TimedWait(1); },
         "VeException: TimedWait: Semaphore could not be timewaited for: Permission denied"},
        {"sem_timedwait", [&] { empty.TimedWait(1); },
         "VeException: TimedWait: Semaphore could not be timewaited for: Permission denied"},
        {"sem_post", [&] { unnamed.Post(); }, "VeException: Post: Semaphore could not be posted: Permission denied"},
        {"sem_getvalue", [&] { named.GetValue(); },
         "VeException: GetValue: Semaphore value could not be retrieved: Permission denied"},
        {"sem_unlink", [&] { named.Unlink(); },
         "VeException: Unlink: Semaphore could not be unlinked: Permission denied"},
        {"sem_close", [&] { SemaphoreService(name + "-other", 1).Unlink(); }, "done"},
        {"sem_close", [&] { const SemaphoreService opener(name); },
         "ends the process: VeException: Close: Semaphore could not be closed: Permission denied"},
    });
}

}  // namespace
