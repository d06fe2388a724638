#include "support/Test.h"

#include <sys/socket.h>

namespace {

using AllocationTest = FactoryTest;
using File = IFileService;
using Queue = IMessageQueueService;
using Socket = ISocketService;

TEST_F(AllocationTest, WhatAControlLoopDoesAgainAndAgainAllocatesNothing) {
    const TemporaryFolder folder;
    const auto mutex = Own(factory->CreateMutex(false));
    const auto held = Own(factory->CreateMutex(false));
    held->Lock();
    const auto condition = Own(factory->CreateConditionVariable());
    const auto lock = Own(factory->CreateRWLock());
    const auto semaphore = Own(factory->CreateSemaphore(0));
    const auto queue = Own(factory->CreateMessageQueue(UniqueName("loop"), Queue::OpenMode::CreateNew,
                                                       Queue::Access::ReadWrite, true, 1, 1));
    const auto file = Own(factory->CreateFile(folder / "f", File::FileMode::Create, File::FileAccess::ReadWrite, true));
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const auto left = Own(factory->CreateSocket(&ends[0]));
    const auto right = Own(factory->CreateSocket(&ends[1]));
    std::atomic<int> calls{0};
    const auto count = [](void* counter) { ++*static_cast<std::atomic<int>*>(counter); };
    const auto timer = Own(factory->CreateTimer(100, "", 0, &calls, count, 0));
    timer->Start();
    Socket::SocketError error{};
    unsigned int priority = 0;
    unsigned char byte = 'x';
    char letter = 'x';

    const struct {
        Operation operation;
        std::string outcome;
    } table[] = {
        {[&] { mutex->Lock(); }, "done"},
        {[&] { return mutex->TryLock() || mutex->TimedLock(0) == 0; }, "false"},
        {[&] { mutex->Unlock(); }, "done"},
        {[&] { return condition->WaitFor(*held, 1) || condition->WaitUntil(*held, {}); }, "false"},
        {[&] { return condition->NotifyOne(), condition->NotifyAll(); }, "done"},
        {[&] { return lock->TimedAcquireReadLock(1) && !lock->TimedAcquireWriteLock(1); }, "true"},
        {[&] { return lock->ReleaseReadLock(), lock->TryAcquireWriteLock(); }, "true"},
        {[&] { lock->ReleaseWriteLock(); }, "done"},
        {[&] { return semaphore->Post(), semaphore->Wait(1) && !semaphore->Wait(1); }, "true"},
        {[&] { return queue->Send(&letter, 1, 0, 1); }, "0"},
        {[&] { return queue->Receive(&letter, 1, priority, 1); }, "1"},
        {[&] { return queue->Receive(&letter, 1, priority, 1); }, "0"},
        {[&] { return file->Write(&byte, 0, 1) == 1 && file->Flush() == 0; }, "true"},
        {[&] { return file->Seek(0, File::SeekOrigin::Begin) == 0 && file->Read(&byte, 0, 1) == 1; }, "true"},
        {[&] { return left->Send(&byte, 1, error); }, "1"},
        {[&] { return right->Poll(Socket::PollMode::Readable, 1, error); }, "1"},
        {[&] { return right->Recv(&byte, 1, error); }, "1"},
        {[&] { return right->Select(Socket::SelectMode::Readable, 1, error); }, "0"},
        {[&] { WaitUntil([&, seen = calls + 5] { return calls > seen; }); }, "done"},
    };
    for (const bool isFirstTime : {true, false}) {
        for (const auto& row : table) {
            SCOPED_TRACE(&row - table);
            const long before = MadeAllocations();
            const std::string outcome = row.operation.Outcome();
            const long made = MadeAllocations() - before;
            EXPECT_EQ(outcome, row.outcome);
            EXPECT_TRUE(isFirstTime || made == 0) << made;
        }
    }
    held->Unlock();
    queue->Unlink();
}

}  // namespace
