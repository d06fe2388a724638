#include "support/Test.h"

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>

#include <array>

namespace {

using OpenMode = IMessageQueueService::OpenMode;
using Access = IMessageQueueService::Access;

constexpr unsigned int size = 16;

class MessageQueueTest : public FactoryTest {
protected:
    ~MessageQueueTest() override { mq_unlink(name.c_str()); }

    /// A queue for three messages of `size` bytes.
    std::unique_ptr<IMessageQueueService> Make(bool blocking, OpenMode mode = OpenMode::CreateNew,
                                               Access access = Access::ReadWrite) {
        return Own(factory->CreateMessageQueue(name, mode, access, blocking, 3, size));
    }

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

TEST_F(MessageQueueTest, MessagesComeByPriorityThenByAge) {
    const auto queue = Make(false);
    EXPECT_EQ(queue->Send("low", 3, 1, 0), 0);
    queue->Send("high", 4, 32767, 1000);
    queue->Send("low again", 9, 1, 1000);
    EXPECT_EQ(Receive(*queue), "32767 high");
    EXPECT_EQ(Receive(*queue, 1000), "1 low");
    EXPECT_EQ(queue->GetMessageCount(), 1);
    EXPECT_EQ(queue->GetMaxMessageCount(), 3);
    EXPECT_EQ(queue->GetMaxMessageSize(), static_cast<long>(size));
    std::array<long, 4> attributes{};
    dynamic_cast<MessageQueueService&>(*queue).GetAttributes(attributes[0], attributes[1], attributes[2],
                                                             attributes[3]);
    EXPECT_EQ(attributes, (std::array<long, 4>{O_NONBLOCK, 3, size, 1}));
    EXPECT_EQ(Receive(*queue), "1 low again");
    // An empty message is as none.
    queue->Send("", 0, 7, 0);
    EXPECT_EQ(Receive(*queue), "none");
    EXPECT_EQ(queue->GetMessageCount(), 0);
}

TEST_F(MessageQueueTest, TimeoutIsNoMessageToTheReceiverAndAFailureToTheSender) {
    const auto blocking = Make(true);
    const auto polling = Own(factory->CreateMessageQueue(name, false));
    EXPECT_TRUE(Own(factory->CreateMessageQueue(name, true))->IsBlocking());
    EXPECT_TRUE(Takes<system_clock>(milliseconds(50), [&] { EXPECT_EQ(Receive(*blocking, 50), "none"); }));
    EXPECT_EQ(Receive(*polling, 60000), "none");
    for (int i = 0; i < 3; ++i) {
        polling->Send("x", 1, 0, 0);
    }
    EXPECT_TRUE(Takes<system_clock>(milliseconds(50), [&] {
        EXPECT_TRUE(ComesTo([&] { blocking->Send("x", 1, 0, 50); }, notSent + "Connection timed out."));
    }));
    EXPECT_TRUE(ComesTo([&] { polling->Send("x", 1, 0, 60000); }, notSent + "Resource temporarily unavailable."));
}

TEST_F(MessageQueueTest, OpensAsItIsTold) {
    EXPECT_TRUE(ComesTo([this] { Make(true, static_cast<OpenMode>(3)); },
                        "VeException: 'SetOpenMode' Unsupported OpenMode requested."));
    EXPECT_TRUE(ComesTo([this] { Make(true, OpenMode::CreateNew, static_cast<Access>(3)); },
                        "VeException: 'SetPermissions' Unsupported Permissions requested."));
    EXPECT_TRUE(ComesTo([this] { Make(true, OpenMode::Open); }, notCreated + "No such file or directory"));
    EXPECT_TRUE(
        ComesTo([this] { return factory->CreateMessageQueue(name, true); }, notOpened + "No such file or directory."));

    const mode_t mask = umask(0);
    const int descriptor = NextDescriptor();
    const auto standard = Own(factory->CreateMessageQueue(name, OpenMode::OpenOrCreate, Access::ReadWrite, false));
    mq_unlink(name.c_str());
    const auto sized = Make(true);
    umask(mask);
    for (const int made : {descriptor, descriptor + 1}) {
        // A queue's descriptor is that of a file.
        struct stat status {};
        EXPECT_EQ(fstat(made, &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0600U);
    }
    EXPECT_FALSE(standard->IsBlocking());
    EXPECT_TRUE(ComesTo([&] { Receive(*standard); }, notReceived + "Message too long."));

    EXPECT_TRUE(ComesTo([this] { Make(true); }, notCreated + "File exists"));
    const auto writer = Make(true, OpenMode::OpenOrCreate, Access::WriteOnly);
    const auto reader = Make(true, OpenMode::Open, Access::ReadOnly);
    EXPECT_TRUE(reader->IsBlocking());
    EXPECT_TRUE(ComesTo([&] { Receive(*writer); }, notReceived + "Bad file descriptor."));
    EXPECT_TRUE(ComesTo([&] { reader->Send("x", 1, 0, 0); }, notSent + "Bad file descriptor."));
    writer->Send("x", 1, 0, 0);
    EXPECT_EQ(reader->GetMessageCount(), 1);
}

TEST_F(MessageQueueTest, ClosedQueueTouchesNoOtherThatHasItsNumberOrItsName) {
    const auto closed = Make(true);
    EXPECT_EQ(CountCallsOfTwo("mq_close", [&] { closed->Close(); }), 1);
    // Gets the same number.
    const auto other = Make(true, OpenMode::Open);
    other->Send("other's", 7, 0, 0);
    for (const unsigned long timeoutMs : {0UL, 9UL}) {
        EXPECT_TRUE(ComesTo([&] { closed->Send("x", 1, 0, timeoutMs); }, notSent + "Bad file descriptor."));
        EXPECT_TRUE(ComesTo([&] { Receive(*closed, timeoutMs); }, notReceived + "Bad file descriptor."));
    }
    EXPECT_TRUE(ComesTo([&] { closed->IsBlocking(); },
                        "VeException: VeException in function 'GetAttributes'. Error Bad file descriptor"));
    EXPECT_EQ(CountCallsOfTwo("mq_unlink", [&] { closed->Unlink(); }), 1);
    const auto successor = Make(true);
    closed->Unlink();
    EXPECT_EQ(Receive(*other), "0 other's");
    EXPECT_EQ(CountCallsOfTwo("mq_close", [&] { other->Unlink(); }), 1);
    EXPECT_EQ(mq_unlink(name.c_str()), -1);
}

TEST_F(MessageQueueTest, FailuresAreReported) {
    const auto queue = Make(true);
    const auto receive = [&] { Receive(*queue); };
    const auto timedReceive = [&] { Receive(*queue, 9); };
    const auto open = [this] { return factory->CreateMessageQueue(name, true); };
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
        {"mq_open", [this] { Make(true); }, notCreated + "Permission denied"},
        {"mq_open", [&] { factory->CreateMessageQueue(name, OpenMode::Open, Access::ReadOnly, true); },
         notCreated + "Permission denied"},
        {"mq_receive", receive, notReceived + "Permission denied."},
        {"mq_send", [&] { queue->Send("x", 1, 0, 0); }, notSent + "Permission denied."},
        // Only a queue that does not wait has no message at once; only a wait with a limit runs out of time.
        {"mq_receive", receive, notReceived + "Resource temporarily unavailable.", 0, EAGAIN},
        {"mq_timedreceive", timedReceive, notReceived + "Resource temporarily unavailable.", 0, EAGAIN},
        {"mq_receive", receive, notReceived + "Connection timed out.", 0, ETIMEDOUT},
        {"mq_close", open, "ends the process: " + notClosed},
        {"mq_close", [&] { queue->Close(); }, notClosed},
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
