#include "support/Test.h"

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>

#include <tuple>

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
        char buffer[size];
        unsigned int priority = 0;
        const int length = queue.Receive(buffer, size, priority, timeoutMs);
        return length == 0 ? "none"
                           : std::to_string(priority) + " " + std::string(buffer, static_cast<unsigned int>(length));
    }

    /// What mq_getattr tells: flags, messages and bytes at most, messages.
    static std::tuple<long, long, long, long> Attributes(const IMessageQueueService& queue) {
        long flags = 0;
        long most = 0;
        long longest = 0;
        long count = 0;
        dynamic_cast<const MessageQueueService&>(queue).GetAttributes(flags, most, longest, count);
        return {flags, most, longest, count};
    }

    bool NameExists() const {
        const mqd_t queue = mq_open(name.c_str(), O_RDONLY);
        mq_close(queue);
        return queue != -1;
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
    EXPECT_EQ(queue->Send("high", 4, 32767, 1000), 0);
    queue->Send("low again", 9, 1, 1000);
    EXPECT_EQ(queue->GetMessageCount(), 3);
    EXPECT_EQ(Receive(*queue), "32767 high");
    EXPECT_EQ(Receive(*queue, 1000), "1 low");
    EXPECT_EQ(queue->GetMessageCount(), 1);
    EXPECT_EQ(queue->GetMaxMessageCount(), 3);
    EXPECT_EQ(queue->GetMaxMessageSize(), static_cast<long>(size));
    EXPECT_EQ(Attributes(*queue), std::tuple(O_NONBLOCK, 3, size, 1));
    EXPECT_EQ(Receive(*queue), "1 low again");
    // An empty message is as none.
    queue->Send("", 0, 7, 0);
    EXPECT_EQ(Receive(*queue), "none");
    EXPECT_EQ(queue->GetMessageCount(), 0);
}

TEST_F(MessageQueueTest, SenderAndReceiverWaitForEachOther) {
    const auto queue = Make(true);
    constexpr int count = 1000;
    Child sender([this] {
        const auto opened = Own(factory->CreateMessageQueue(name, true));
        for (int i = 0; i < count; ++i) {
            opened->Send("x", 1, 0, i % 3 == 0 ? 60000 : 0);
        }
        return 0;
    });
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(Receive(*queue, i % 2 == 0 ? 0 : 60000), "0 x");
    }
    EXPECT_EQ(sender.Wait(), 0);
}

TEST_F(MessageQueueTest, TimeoutIsNoMessageToTheReceiverAndAFailureToTheSender) {
    const auto blocking = Make(true);
    const auto polling = Own(factory->CreateMessageQueue(name, false));
    EXPECT_TRUE(Takes<system_clock>(milliseconds(50), [&] { EXPECT_EQ(Receive(*blocking, 50), "none"); }));
    EXPECT_EQ(Receive(*polling), "none");
    EXPECT_EQ(Receive(*polling, 60000), "none");
    for (int i = 0; i < 3; ++i) {
        polling->Send("x", 1, 0, 0);
    }
    EXPECT_TRUE(Takes<system_clock>(milliseconds(50), [&] {
        EXPECT_TRUE(ComesTo([&] { blocking->Send("x", 1, 0, 50); }, notSent + "Connection timed out."));
    }));
    for (const unsigned long timeoutMs : {0UL, 60000UL}) {
        EXPECT_TRUE(
            ComesTo([&] { polling->Send("x", 1, 0, timeoutMs); }, notSent + "Resource temporarily unavailable."));
    }
}

TEST_F(MessageQueueTest, OpensAsItIsTold) {
    const std::tuple<OpenMode, Access, std::string> refused[] = {
        {OpenMode::Open, Access::ReadWrite, notCreated + "No such file or directory"},
        {static_cast<OpenMode>(3), Access::ReadWrite, "VeException: 'SetOpenMode' Unsupported OpenMode requested."},
        {OpenMode::CreateNew, static_cast<Access>(3),
         "VeException: 'SetPermissions' Unsupported Permissions requested."},
    };
    for (const auto& [mode, access, outcome] : refused) {
        EXPECT_TRUE(ComesTo([&, mode = mode, access = access] { Make(true, mode, access); }, outcome));
    }
    EXPECT_TRUE(
        ComesTo([&] { return factory->CreateMessageQueue(name, true); }, notOpened + "No such file or directory."));
    EXPECT_FALSE(NameExists());

    const mode_t mask = umask(0);
    const int descriptor = NextDescriptor();
    const auto standard = Own(factory->CreateMessageQueue(name, OpenMode::OpenOrCreate, Access::ReadWrite, false));
    umask(mask);
    // A queue's descriptor is that of a file.
    struct stat status {};
    EXPECT_EQ(fstat(descriptor, &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    EXPECT_GT(standard->GetMaxMessageSize(), static_cast<long>(size));
    EXPECT_TRUE(ComesTo([&] { Receive(*standard); }, notReceived + "Message too long."));

    EXPECT_TRUE(ComesTo([&] { Make(true); }, notCreated + "File exists"));
    const auto writer = Make(true, OpenMode::OpenOrCreate, Access::WriteOnly);
    const auto reader = Make(true, OpenMode::Open, Access::ReadOnly);
    writer->Send("x", 1, 0, 0);
    EXPECT_TRUE(ComesTo([&] { Receive(*writer); }, notReceived + "Bad file descriptor."));
    EXPECT_TRUE(ComesTo([&] { reader->Send("x", 1, 0, 0); }, notSent + "Bad file descriptor."));
    char buffer[8192];
    unsigned int priority = 0;
    EXPECT_EQ(reader->Receive(buffer, sizeof buffer, priority, 0), 1);
    EXPECT_TRUE(reader->IsBlocking());
    EXPECT_FALSE(standard->IsBlocking());
}

TEST_F(MessageQueueTest, ClosedQueueTouchesNoOtherThatHasItsNumberOrItsName) {
    const auto closed = Make(true);
    closed->Close();
    closed->Close();
    // Gets the same number.
    const auto other = Make(true, OpenMode::Open);
    other->Send("other's", 7, 0, 0);
    for (const unsigned long timeoutMs : {0UL, 9UL}) {
        EXPECT_TRUE(ComesTo([&] { closed->Send("x", 1, 0, timeoutMs); }, notSent + "Bad file descriptor."));
        EXPECT_TRUE(ComesTo([&] { Receive(*closed, timeoutMs); }, notReceived + "Bad file descriptor."));
    }
    EXPECT_TRUE(ComesTo([&] { closed->IsBlocking(); },
                        "VeException: VeException in function 'GetAttributes'. Error Bad file descriptor"));
    closed->Unlink();
    EXPECT_FALSE(NameExists());
    const auto successor = Make(true);
    closed->Unlink();
    EXPECT_TRUE(NameExists());
    EXPECT_EQ(Receive(*other), "0 other's");
    other->Unlink();
    EXPECT_FALSE(NameExists());
}

TEST_F(MessageQueueTest, OfTwoThatCloseOrUnlinkOneDoes) {
    const std::pair<const char*, void (IMessageQueueService::*)()> table[] = {
        {"mq_close", &IMessageQueueService::Close}, {"mq_unlink", &IMessageQueueService::Unlink}};
    for (const auto& [function, operation] : table) {
        const auto queue = Make(true);
        int calls = 0;
        const Interposition call(function, [&, &end = operation](const Interposition::Arguments& arguments) {
            if (++calls == 1) {
                (*queue.*end)();
            }
            return call.CallThrough(arguments);
        });
        (*queue.*operation)();
        EXPECT_EQ(calls, 1) << function;
        mq_unlink(name.c_str());
    }
}

TEST_F(MessageQueueTest, FailuresAreReported) {
    const auto queue = Make(true);
    const auto receive = [&](unsigned long timeoutMs) { return [&, timeoutMs] { Receive(*queue, timeoutMs); }; };
    const auto unlink = [&] { queue->Unlink(); };
    const std::string denied = "Permission denied.";
    const std::string notClosed = "VeException: Could not close message queue. Error Permission denied.";
    {
        // The error is that of the call, whatever the question for the kind of queue leaves behind.
        const Interposition question("mq_getattr", [&](const Interposition::Arguments& arguments) {
            const std::intptr_t result = question.CallThrough(arguments);
            errno = EIO;
            return result;
        });
        // Only a queue that does not wait has no message at once; only a wait with a limit runs out of time.
        ExpectFailures({
            {"mq_receive", receive(0), notReceived + "Resource temporarily unavailable.", 0, EAGAIN},
            {"mq_timedreceive", receive(9), notReceived + "Resource temporarily unavailable.", 0, EAGAIN},
            {"mq_receive", receive(0), notReceived + "Connection timed out.", 0, ETIMEDOUT},
        });
    }
    ExpectFailures({
        {"mq_open", [&] { return factory->CreateMessageQueue(name, true); }, notOpened + denied},
        {"mq_open", [&] { Make(true); }, notCreated + "Permission denied"},
        {"mq_open", [&] { return factory->CreateMessageQueue(name, OpenMode::Open, Access::ReadOnly, true); },
         notCreated + "Permission denied"},
        {"mq_getattr", [&] { queue->GetMessageCount(); },
         "VeException: VeException in function 'GetAttributes'. Error Permission denied"},
        {"mq_send", [&] { queue->Send("x", 1, 0, 0); }, notSent + denied},
        {"mq_receive", receive(0), notReceived + denied},
        {"mq_close", [&] { return factory->CreateMessageQueue(name, true); }, "ends the process: " + notClosed},
        {"mq_close", [&] { queue->Close(); }, notClosed},
        {"mq_close", unlink, notClosed},
    });
    // It stays open, and a name that could not be removed is the queue's.
    queue->Send("x", 1, 0, 0);
    const std::ptrdiff_t open = OpenDescriptors();
    {
        const FailingCall call("mq_unlink");
        EXPECT_TRUE(ComesTo(unlink, "VeException: Could not unlink message queue. Error " + denied));
    }
    EXPECT_EQ(OpenDescriptors(), open - 1);
    unlink();
    EXPECT_FALSE(NameExists());
}

}  // namespace
