#include "support/SharedObject.h"
#include "support/Test.h"
#include "support/ThreadStat.h"
#include "support/UniqueName.h"

#include <mqueue.h>
#include <semaphore.h>

namespace {

class KilledPeerTest : public FactoryTest {
protected:
    ~KilledPeerTest() override {
        sem_unlink(name.c_str());
        mq_unlink(name.c_str());
    }

    /// Runs `function` in a child, then `meanwhile` here, and then kills the child.
    static void KillAfter(
        const std::function<void()>& function, const std::function<void()>& meanwhile = [] {}) {
        const SharedObject<std::atomic<bool>> isDone;
        const Child child([&]() -> int {
            function();
            isDone->store(true);
            for (;;) {
                pause();
            }
        });
        while (!isDone->load()) {
            std::this_thread::yield();
        }
        meanwhile();
    }

    /// A thread that has begun to run `function`, and sleeps in it.
    static std::thread Sleeping(const std::function<void()>& function) {
        std::atomic<pid_t> id{0};
        std::thread thread([&id, function] {
            id = gettid();
            function();
        });
        while (id == 0 || ThreadStat(id, 3) != "S") {
            std::this_thread::yield();
        }
        return thread;
    }

    template <typename Mutex, typename Condition>
    static void ExpectHeldAfterWait(Mutex& mutex, Condition& changed);

    const BasicString name = UniqueName("killed");
};

struct Shared {
    IpcMutexService mutex;
    IpcCondVarService changed;
};

class KilledHolderTest : public KilledPeerTest {
protected:
    KilledHolderTest() { shared->mutex.Init(false); }
    ~KilledHolderTest() override {
        // As good as before.
        EXPECT_TRUE(shared->mutex.TryLock());
        shared->mutex.Unlock();
        shared->mutex.Lock();
        shared->mutex.Unlock();
        shared->changed.Destroy();
        shared->mutex.Destroy();
    }

    const SharedObject<Shared> shared;
    // The first does not wait.
    const std::vector<std::pair<std::string, std::function<void()>>> acquisitions{
        {"TryLock: Mutex could not be trylocked: Owner died", [this] { shared->mutex.TryLock(); }},
        {"Lock: Mutex could not be locked: Owner died", [this] { shared->mutex.Lock(); }},
#ifndef __SANITIZE_THREAD__  // It does not know that this one may acquire the mutex then.
        {"TimedLock: Mutex could not be timelocked: Owner died", [this] { shared->mutex.TimedLock(60000); }},
#endif
    };
};

TEST_F(KilledHolderTest, OneOfThoseWhoWaitIsTold) {
    for (std::size_t i = 1; i < acquisitions.size(); ++i) {
        std::thread threads[2];
        std::atomic<int> told{0};
        const auto acquire = [&, this] {
            if (Throws<VeException>(acquisitions[i].second, acquisitions[i].first)) {
                ++told;
            } else {
                shared->mutex.Unlock();
            }
        };
        KillAfter([this] { shared->mutex.Lock(); },
                  [&] {
                      for (std::thread& thread : threads) {
                          thread = Sleeping(acquire);
                      }
                  });
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(told, 1);
    }
    // User-mode emulation keeps no list of what a process holds: there nobody is told later.
    for (const auto& [message, acquire] : acquisitions) {
        if (!IsEmulated()) {
            KillAfter([this] { shared->mutex.Lock(); });
            EXPECT_TRUE(Throws<VeException>(acquire, message));
        }
    }
}

/// A wait for a condition during which the mutex's holder dies ends with the mutex held, and good.
template <typename Mutex, typename Condition>
void KilledPeerTest::ExpectHeldAfterWait(Mutex& mutex, Condition& changed) {
    const std::function<void()> waits[] = {[&] { changed.Wait(mutex); }, [&] { changed.WaitFor(mutex, 60000); }};
    const auto lock = [&] {
        mutex.Lock();
        if (IsEmulated()) {
            mutex.Unlock();
        }
    };
    for (const auto& wait : waits) {
        std::thread told = Sleeping([&] {
            const MutexGuard guard(mutex);
            if (IsEmulated()) {
                wait();
            } else {
                EXPECT_TRUE(Throws<VeException>(wait, "Owner died"));
            }
            EXPECT_FALSE(mutex.TryLock());
        });
        KillAfter(lock, [&] { changed.NotifyAll(); });
        told.join();

        std::thread cancelled = Sleeping([&] {
            const MutexGuard guard(mutex);
            wait();
        });
        KillAfter(lock);
        pthread_cancel(cancelled.native_handle());
        cancelled.join();
        EXPECT_TRUE(mutex.TryLock());
        mutex.Unlock();
    }
}

TEST_F(KilledHolderTest, WaitForAConditionEndsWithTheMutexHeld) {
    ExpectHeldAfterWait(shared->mutex, shared->changed);
    const SharedObject<MutexService> mutex;
    mutex->Init(false, MutexService::InterProcess);
    ConditionVariableService changed;
    ExpectHeldAfterWait(*mutex, changed);
}

TEST_F(KilledPeerTest, SemaphoreKeepsItsCountAndItsName) {
    KillAfter([this] {
        // Created, and taken once of three times.
        (new SemaphoreService(name, 3))->Wait(0);
    });
    SemaphoreService survivor(name);
    EXPECT_EQ(survivor.GetValue(), 2);
    EXPECT_TRUE(survivor.TryWait() && survivor.TryWait());
    EXPECT_FALSE(survivor.Wait(1));
    survivor.Post();
    EXPECT_TRUE(survivor.TryWait());
}

TEST_F(KilledPeerTest, QueueKeepsItsMessages) {
    using OpenMode = IMessageQueueService::OpenMode;
    using Access = IMessageQueueService::Access;
    KillAfter([this] {
        auto* const queue = new MessageQueueService(name, OpenMode::CreateNew, Access::ReadWrite, true, 4, 8);
        queue->Send("low", 3, 1, 0);
        queue->Send("high", 4, 2, 0);
    });
    MessageQueueService survivor(name, false);
    char text[8];
    unsigned int priority = 0;
    EXPECT_EQ(survivor.GetMessageCount(), 2);
    EXPECT_EQ(survivor.Receive(text, sizeof text, priority, 0), 4);
    EXPECT_EQ(survivor.Receive(text, sizeof text, priority, 0), 3);
    EXPECT_EQ(priority, 1U);
    EXPECT_EQ(survivor.Receive(text, sizeof text, priority, 0), 0);
    EXPECT_EQ(survivor.Send("more", 4, 0, 0), 0);
}

TEST_F(KilledPeerTest, SocketTellsAfterTheLastByteAndItsNameIsFree) {
    using Error = ISocketService::SocketError;
    const auto make = [this] {
        return std::unique_ptr<ISocketService>(factory->CreateSocket(ISocketService::SocketType::Stream,
                                                                     ISocketService::SocketDomain::Local,
                                                                     ISocketService::SocketBlockingMode::Blocking));
    };
    const auto survivor = make();
    Error error{};
    char byte = 0;
    const auto listener = make();
    EXPECT_EQ(listener->Bind(name + "-survivor"), 0);
    EXPECT_EQ(listener->Listen(1), 0);
    KillAfter(
        [&, this] {
            ISocketService* const bound = make().release();
            bound->Bind(name);
            ISocketService* const client = make().release();
            client->Connect(name + "-survivor");
            client->Send("x", 1, error);
        },
        [&, this] { EXPECT_NE(survivor->Bind(name), 0); });
    BasicString peer;
    const std::unique_ptr<ISocketService> connection(listener->Accept(peer, error));
    ASSERT_TRUE(connection);
    EXPECT_EQ(connection->Recv(&byte, 1, error), 1);
    EXPECT_EQ(connection->Poll(ISocketService::PollMode::Readable, 60000, error), 1);
    EXPECT_EQ(error, Error::ConnReset);
    EXPECT_EQ(connection->Recv(&byte, 1, error), 0);
    EXPECT_EQ(connection->Send("x", 1, error), -1);
    EXPECT_EQ(error, Error::NotConn);
    EXPECT_EQ(survivor->Bind(name), 0);
}

}  // namespace
