#include "support/Child.h"
#include "support/FactoryTest.h"
#include "support/FailingCall.h"
#include "support/Throws.h"
#include "support/UniqueName.h"

#include <Kel/System/Ve/Exceptions/AlreadyExistsException.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/ISemaphoreService.h>
#include <Kel/System/Ve/Internal/Linux/SemaphoreService.h>

#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>

using Kel::BasicString;
using Kel::System::Ve::ISemaphoreService;
using Kel::System::Ve::Exceptions::AlreadyExistsException;
using Kel::System::Ve::Exceptions::VeException;
using Kel::System::Ve::Internal::Linux::SemaphoreService;

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
    std::optional<SemaphoreService> creator(std::in_place, name, 1);
    EXPECT_EQ(creator->GetName(), name);
    EXPECT_TRUE(Throws<AlreadyExistsException>([&] { SemaphoreService(name, 1); },
                                               "SemaphoreService: Semaphore with name " + name + " already exists."));
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
    EXPECT_TRUE(Throws<VeException>([&] { semaphore.Wait(0); }, "Wait: Semaphore not initialized."));
    EXPECT_TRUE(Throws<VeException>([&] { semaphore.Wait(1); }, "Wait: Semaphore not initialized."));
    EXPECT_TRUE(Throws<VeException>([&] { semaphore.WaitInfinite(); }, "WaitInfinite: Semaphore not initialized."));
    EXPECT_TRUE(Throws<VeException>([&] { semaphore.TimedWait(1); }, "TimedWait: Semaphore not initialized."));
    EXPECT_TRUE(Throws<VeException>([&] { semaphore.TryWait(); }, "TryWait: Semaphore not initialized."));
    EXPECT_TRUE(Throws<VeException>([&] { semaphore.Post(); }, "Post: Semaphore not initialized."));
    EXPECT_TRUE(Throws<VeException>([&] { semaphore.GetValue(); }, "GetValue: Semaphore not initialized."));
}

TEST_F(SemaphoreTest, FailedCallsAreReported) {
    SemaphoreService semaphore(1);
    SemaphoreService named(name, 1);
    ExpectFailures({
        {"sem_init", -1, EINVAL, [] { SemaphoreService(1); },
         "SemaphoreService: Unnamed semaphore could not be initiated: Invalid argument"},
        {"sem_open", 0, EACCES, [] { SemaphoreService("/x", 1); },
         "SemaphoreService: Named semaphore could not be created. Error: Permission denied"},
        {"sem_open", 0, EACCES, [] { const SemaphoreService opened("/x"); },
         "SemaphoreService: Named emaphore could not be opened Error: Permission denied"},
        {"sem_wait", -1, EINTR, [&] { semaphore.Wait(0); },
         "WaitInfinite: Semaphore could not be waited for: Interrupted system call"},
        {"sem_wait", -1, EINVAL, [&] { semaphore.WaitThroughSignals(); },
         "WaitInfinite: Semaphore could not be waited for: Invalid argument"},
        {"sem_trywait", -1, EINVAL, [&] { semaphore.TryWait(); },
         "TryWait: Semaphore could not be waited for: Invalid argument"},
        {"sem_timedwait", -1, EINTR, [&] { semaphore.Wait(1); },
         "TimedWait: Semaphore could not be timewaited for: Interrupted system call"},
        {"clock_gettime", -1, EINVAL, [&] { semaphore.Wait(1); }, "Could not compute timeout."},
        {"sem_post", -1, EOVERFLOW, [&] { semaphore.Post(); },
         "Post: Semaphore could not be posted: Value too large for defined data type"},
        {"sem_getvalue", -1, EINVAL, [&] { semaphore.GetValue(); },
         "GetValue: Semaphore value could not be retrieved: Invalid argument"},
        {"sem_close", -1, EINVAL, [&] { named.Close(); }, "Close: Semaphore could not be closed: Invalid argument"},
        {"sem_unlink", -1, EACCES, [&] { named.Unlink(); },
         "Unlink: Semaphore could not be unlinked: Permission denied"},
        {"sem_destroy", -1, EINVAL, [&] { semaphore.Destroy(); },
         "Destroy: Semaphore could not be destroyed: Invalid argument"},
    });
    // After a failure everything is as it was.
    EXPECT_EQ(named.GetValue(), 1);
    EXPECT_EQ(semaphore.GetValue(), 1);
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
