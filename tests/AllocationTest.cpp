#include "support/Test.h"

#include <sys/socket.h>

namespace {

using AllocationTest = FactoryTest;
using File = IFileService;
using Queue = IMessageQueueService;
using Socket = ISocketService;

TEST_F(AllocationTest, WhatAControlLoopDoesAgainAndAgainAllocatesNothing) {
    const TemporaryFolder folder;
    MutexService mutex;
    mutex.Init(false, MutexService::ProcessPrivate);
    ConditionVariableService condition;
    RWLockService lock;
    SemaphoreService semaphore(0);
    const auto queue = Own(factory->CreateMessageQueue(UniqueName("loop"), Queue::OpenMode::CreateNew,
                                                       Queue::Access::ReadWrite, true, 1, 1));
    const auto file = Own(factory->CreateFile(folder / "f", File::FileMode::Create, File::FileAccess::ReadWrite, true));
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const auto left = Own(factory->CreateSocket(&ends[0]));
    const auto right = Own(factory->CreateSocket(&ends[1]));
    const auto post = [](void* posted) { static_cast<SemaphoreService*>(posted)->Post(); };
    const auto timer = Own(factory->CreateTimer(100, "", 0, &semaphore, post, 0));
    timer->Start();
    const auto cycle = [&] {
        Socket::SocketError error{};
        unsigned int priority = 0;
        unsigned char byte = 'x';
        char letter = 'x';
        EXPECT_EQ(mutex.TimedLock(0), 0);
        EXPECT_FALSE(condition.WaitFor(mutex, 1));
        condition.NotifyAll();
        mutex.Unlock();
        EXPECT_TRUE(lock.TimedAcquireReadLock(1) && !lock.TimedAcquireWriteLock(1));
        lock.Unlock();
        EXPECT_TRUE(semaphore.Wait(1000) && semaphore.Wait(0));
        EXPECT_EQ(queue->Send(&letter, 1, 0, 1), 0);
        EXPECT_TRUE(queue->Receive(&letter, 1, priority, 1) == 1 && queue->Receive(&letter, 1, priority, 1) == 0);
        EXPECT_TRUE(file->Write(&byte, 0, 1) == 1 && file->Seek(0, File::SeekOrigin::Begin) == 0);
        EXPECT_TRUE(left->Send(&byte, 1, error) == 1 && right->Poll(Socket::PollMode::Readable, 1, error) == 1);
        EXPECT_TRUE(right->Recv(&byte, 1, error) == 1 && right->Select(Socket::SelectMode::Readable, 1, error) == 0);
    };
    cycle();
    const long before = MadeAllocations();
    cycle();
    EXPECT_EQ(MadeAllocations(), before);
    queue->Unlink();
}

}  // namespace
