#include "support/Test.h"

#include <fcntl.h>
#include <mqueue.h>

namespace {

using OpenMode = IMessageQueueService::OpenMode;
using Access = IMessageQueueService::Access;

constexpr long size = 16;

class MessageQueueTest : public FactoryTest {
protected:
    ~MessageQueueTest() override { mq_unlink(name.c_str()); }

    /// A queue for two messages of `size` bytes.
    auto Make(bool blocking, OpenMode mode = OpenMode::CreateNew, Access access = Access::ReadWrite) {
        return Own(factory->CreateMessageQueue(name, mode, access, blocking, 2, size));
    }

    auto Open(bool blocking) { return Own(factory->CreateMessageQueue(name, blocking)); }

    /// The priority and the text of the next message; "none" when there is none, or an empty one.
    static std::string Receive(IMessageQueueService& queue, unsigned long timeoutMs = 0) {
        char buffer[size] = "";
        unsigned int priority = 0;
        const int length = queue.Receive(buffer, size, priority, timeoutMs);
        return length == 0 ? "none" : std::to_string(priority) + " " + buffer;
    }

    const BasicString name = UniqueName("queue");
    const std::string notSent = "VeException: Could not send message. Error ";
};

TEST_F(MessageQueueTest, MessagesComeByPriority) {
    const auto queue = Make(false);
    EXPECT_EQ(queue->Send("low", 3, 1, 0), 0);
    queue->Send("high", 4, 32767, 1000);
    EXPECT_EQ(Receive(*queue), "32767 high");
    std::array<long, 4> attributes{};
    auto& [flags, maxCount, maxSize, count] = attributes;
    dynamic_cast<MessageQueueService&>(*queue).GetAttributes(flags, maxCount, maxSize, count);
    EXPECT_EQ(attributes, (std::array<long, 4>{O_NONBLOCK, 2, size, 1}));
    EXPECT_EQ(std::tuple(queue->GetMaxMessageCount(), queue->GetMaxMessageSize()), std::tuple(2, size));
    EXPECT_EQ(queue->GetMessageCount(), 1);
    EXPECT_EQ(Receive(*queue, 1000), "1 low");
    // An empty message is as none.
    queue->Send("", 0, 7, 0);
    EXPECT_EQ(Receive(*queue), "none");
    EXPECT_EQ(CountCallsOfTwo("mq_close", [&] { queue->Unlink(); }), 1);
}

TEST_F(MessageQueueTest, TimeoutIsNoMessageToTheReceiverAndAFailureToTheSender) {
    const auto blocking = Make(true);
    const auto polling = Open(false);
    EXPECT_TRUE(Takes<system_clock>(milliseconds(50), [&] { EXPECT_EQ(Receive(*blocking, 50), "none"); }));
    EXPECT_EQ(Receive(*polling, 60000), "none");
    polling->Send("x", 1, 0, 0);
    polling->Send("x", 1, 0, 0);
    EXPECT_TRUE(ComesTo([&] { polling->Send("x", 1, 0, 60000); }, notSent + "Resource temporarily unavailable."));
    EXPECT_TRUE(Takes<system_clock>(milliseconds(50), [&] {
        EXPECT_TRUE(ComesTo([&] { blocking->Send("x", 1, 0, 50); }, notSent + "Connection timed out."));
    }));
}

TEST_F(MessageQueueTest, OpensAsItIsTold) {
    const std::tuple<OpenMode, Access, bool, int> table[] = {
        {OpenMode::CreateNew, Access::ReadWrite, true, O_CREAT | O_EXCL | O_RDWR},
        {OpenMode::OpenOrCreate, Access::WriteOnly, false, O_CREAT | O_WRONLY | O_NONBLOCK},
        {OpenMode::Open, Access::ReadOnly, false, O_RDONLY | O_NONBLOCK},
    };
    for (const auto& [mode, access, blocking, flags] : table) {
        const auto make = [this, how = mode, what = access, waits = blocking] {
            Own(factory->CreateMessageQueue(name, how, what, waits));
        };
        const auto call = CallsOf("mq_open", make).at(0);
        EXPECT_EQ(std::tuple(call[1], call[2]), std::tuple(flags, 0600));
    }
    EXPECT_TRUE(ComesTo([this] { Make(true, static_cast<OpenMode>(3)); },
                        "VeException: 'SetOpenMode' Unsupported OpenMode requested."));
    EXPECT_TRUE(ComesTo([this] { Make(true, OpenMode::Open, static_cast<Access>(3)); },
                        "VeException: 'SetPermissions' Unsupported Permissions requested."));
}

TEST_F(MessageQueueTest, FailuresAreReported) {
    const auto make = [&] { return factory->CreateMessageQueue(name, OpenMode::CreateNew, Access::ReadWrite, true); };
    const auto queue = Own(make());
    const auto unlink = [&] { queue->Unlink(); };
    const std::string cannotOpen = "VeException: 'MessageQueueService' Cannot open ";
    const std::string notReceived = "VeException: Could not receive message. Error ";
    const std::string notClosed = "VeException: Could not close message queue. Error Permission denied.";
    ExpectFailures({
        {"mq_open", [&] { Open(true); }, cannotOpen + "message queue " + name + ". Error Permission denied."},
        {"mq_open", [&] { Make(true); }, cannotOpen + "or create message queue. Error: Permission denied"},
        {"mq_open", make, cannotOpen + "or create message queue. Error: Permission denied"},
        {"mq_send", [&] { queue->Send("x", 1, 0, 0); }, notSent + "Permission denied."},
        // Only a queue that does not wait has no message at once; only a wait with a limit runs out of time.
        {"mq_receive", [&] { Receive(*queue); }, notReceived + "Resource temporarily unavailable.", 0, EAGAIN},
        {"mq_receive", [&] { Receive(*queue); }, notReceived + "Connection timed out.", 0, ETIMEDOUT},
        {"mq_close", [&] { Open(true); }, "ends the process: " + notClosed},
        {"mq_close", unlink, notClosed},
    });
    // It is open still, and its name its own, also when that could not be removed.
    queue->Send("x", 1, 0, 0);
    const FailingCall call("mq_unlink");
    EXPECT_TRUE(ComesTo(unlink, "VeException: Could not unlink message queue. Error Permission denied."));
    unlink();
    EXPECT_EQ(mq_unlink(name.c_str()), -1);
}

}  // namespace
