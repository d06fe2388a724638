#include "support/Test.h"

#include <fcntl.h>
#include <mqueue.h>

namespace {

using OpenMode = IMessageQueueService::OpenMode;
using Access = IMessageQueueService::Access;
using Queue = std::unique_ptr<IMessageQueueService>;

constexpr long size = 16;

class MessageQueueTest : public FactoryTest {
protected:
    ~MessageQueueTest() override { mq_unlink(name.c_str()); }

    /// A queue for two messages of `size` bytes.
    Queue Make(bool blocking, OpenMode mode = OpenMode::CreateNew, Access access = Access::ReadWrite) {
        return Own(factory->CreateMessageQueue(name, mode, access, blocking, 2, size));
    }

    Queue Open(bool blocking) { return Own(factory->CreateMessageQueue(name, blocking)); }

    /// The priority and the text of the next message; "none" when there is none, or an empty one.
    static std::string Receive(IMessageQueueService& queue, unsigned long timeoutMs = 0) {
        char buffer[size] = "";
        unsigned int priority = 0;
        const int length = queue.Receive(buffer, size, priority, timeoutMs);
        return length == 0 ? "none" : std::to_string(priority) + " " + buffer;
    }

    const BasicString name = UniqueName("queue");
    const std::string notOpened = "VeException: 'MessageQueueService' Cannot open message queue " + name + ". Error ";
    const std::string notCreated = "VeException: 'MessageQueueService' Cannot open or create message queue. Error: ";
    const std::string notSent = "VeException: Could not send message. Error ";
    const std::string notReceived = "VeException: Could not receive message. Error ";
};

TEST_F(MessageQueueTest, MessagesComeByPriority) {
    const Queue queue = Make(false);
    EXPECT_EQ(queue->Send("low", 3, 1, 0), 0);
    queue->Send("high", 4, 32767, 1000);
    EXPECT_EQ(Receive(*queue), "32767 high");
    long flags = 0;
    long maxCount = 0;
    long maxSize = 0;
    long count = 0;
    dynamic_cast<MessageQueueService&>(*queue).GetAttributes(flags, maxCount, maxSize, count);
    EXPECT_EQ(std::tuple(flags, maxCount, maxSize, count), std::tuple(O_NONBLOCK, 2, size, 1));
    EXPECT_EQ(std::tuple(queue->GetMaxMessageCount(), queue->GetMaxMessageSize()), std::tuple(2, size));
    EXPECT_EQ(queue->GetMessageCount(), 1);
    EXPECT_EQ(Receive(*queue, 1000), "1 low");
    // An empty message is as none.
    queue->Send("", 0, 7, 0);
    EXPECT_EQ(Receive(*queue), "none");
}

TEST_F(MessageQueueTest, TimeoutIsNoMessageToTheReceiverAndAFailureToTheSender) {
    const Queue blocking = Make(true);
    const Queue polling = Open(false);
    EXPECT_TRUE(Takes<system_clock>(milliseconds(50), [&] { EXPECT_EQ(Receive(*blocking, 50), "none"); }));
    EXPECT_EQ(Receive(*polling, 60000), "none");
    polling->Send("x", 1, 0, 0);
    polling->Send("x", 1, 0, 0);
    const Operation send = [&] { blocking->Send("x", 1, 0, 50); };
    EXPECT_TRUE(
        Takes<system_clock>(milliseconds(50), [&] { EXPECT_TRUE(ComesTo(send, notSent + "Connection timed out.")); }));
    EXPECT_TRUE(ComesTo([&] { polling->Send("x", 1, 0, 60000); }, notSent + "Resource temporarily unavailable."));
}

TEST_F(MessageQueueTest, OpensAsItIsTold) {
    const std::tuple<OpenMode, Access, bool, int> table[] = {
        {OpenMode::CreateNew, Access::ReadWrite, true, O_CREAT | O_EXCL | O_RDWR},
        {OpenMode::OpenOrCreate, Access::WriteOnly, false, O_CREAT | O_WRONLY | O_NONBLOCK},
        {OpenMode::Open, Access::ReadOnly, false, O_RDONLY | O_NONBLOCK},
    };
    for (const auto& [mode, access, blocking, flags] : table) {
        const Interposition call("mq_open", [&, &flags = flags](const Interposition::Arguments& arguments) {
            EXPECT_EQ(arguments[1], flags);
            EXPECT_EQ(arguments[2], 0600);
            errno = EMFILE;
            return -1;
        });
        EXPECT_THROW(Make(blocking, mode, access), VeException);
        EXPECT_THROW(factory->CreateMessageQueue(name, mode, access, blocking), VeException);
    }
    EXPECT_TRUE(ComesTo([this] { Make(true, static_cast<OpenMode>(3)); },
                        "VeException: 'SetOpenMode' Unsupported OpenMode requested."));
    EXPECT_TRUE(ComesTo([this] { Make(true, OpenMode::Open, static_cast<Access>(3)); },
                        "VeException: 'SetPermissions' Unsupported Permissions requested."));
    const auto standard = Own(factory->CreateMessageQueue(name, OpenMode::CreateNew, Access::ReadWrite, true));
    EXPECT_TRUE(standard->IsBlocking() && Open(true)->IsBlocking());
}

TEST_F(MessageQueueTest, FailuresAreReported) {
    const Queue queue = Make(true);
    const auto receive = [&] { Receive(*queue); };
    const auto open = [this] { Open(true); };
    const auto create = [this] { Own(factory->CreateMessageQueue(name, OpenMode::Open, Access::ReadOnly, true)); };
    const auto unlink = [&] { queue->Unlink(); };
    const std::string notClosed = "VeException: Could not close message queue. Error Permission denied.";
    // The error is that of the call, whatever the question for the kind of queue leaves behind.
    const Interposition question("mq_getattr", [&](const Interposition::Arguments& arguments) {
        const std::intptr_t result = question.CallThrough(arguments);
        errno = EIO;
        return result;
    });
    ExpectFailures({
        {"mq_open", open, notOpened + "Permission denied."},
        {"mq_open", create, notCreated + "Permission denied"},
        {"mq_open", [this] { Make(true); }, notCreated + "Permission denied"},
        {"mq_send", [&] { queue->Send("x", 1, 0, 0); }, notSent + "Permission denied."},
        // Only a queue that does not wait has no message at once; only a wait with a limit runs out of time.
        {"mq_receive", receive, notReceived + "Resource temporarily unavailable.", 0, EAGAIN},
        {"mq_receive", receive, notReceived + "Connection timed out.", 0, ETIMEDOUT},
        {"mq_close", open, "ends the process: " + notClosed},
        {"mq_close", unlink, notClosed},
    });
    // It is open still, and its name its own, also when that could not be removed.
    queue->Send("x", 1, 0, 0);
    {
        const FailingCall call("mq_unlink");
        EXPECT_TRUE(ComesTo(unlink, "VeException: Could not unlink message queue. Error Permission denied."));
    }
    unlink();
    EXPECT_EQ(mq_unlink(name.c_str()), -1);
}

}  // namespace
