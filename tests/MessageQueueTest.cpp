#include "support/Test.h"
#include "support/UniqueName.h"

#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>

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
        return std::unique_ptr<IMessageQueueService>(
            factory->CreateMessageQueue(name, mode, access, blocking, 3, size));
    }

    /// The priority and the text of the next message; "none" when there is none, or an empty one.
    static std::string Receive(IMessageQueueService& queue, unsigned long timeoutMs = 0) {
        char buffer[size];
        unsigned int priority = 0;
        const int length = queue.Receive(buffer, size, priority, timeoutMs);
        return length == 0 ? "none"
                           : std::to_string(priority) + " " + std::string(buffer, static_cast<unsigned int>(length));
    }

    bool NameExists() const {
        const mqd_t queue = mq_open(name.c_str(), O_RDONLY);
        mq_close(queue);
        return queue != -1;
    }

    const BasicString name = UniqueName("queue");
    const std::string notSent = "Could not send message. Error ";
    const std::string notReceived = "Could not receive message. Error ";
    const std::string badDescriptor = "Bad file descriptor.";
};

TEST_F(MessageQueueTest, MessagesComeByPriorityThenByAge) {
    const auto queue = Make(false);
    queue->Send("low", 3, 1, 0);
    queue->Send("high", 4, 32767, 0);
    queue->Send("low again", 9, 1, 1000);
    EXPECT_EQ(queue->GetMessageCount(), 3);
    EXPECT_EQ(queue->GetMaxMessageCount(), 3);
    EXPECT_EQ(queue->GetMaxMessageSize(), static_cast<long>(size));
    long flags = 0;
    long most = 0;
    long longest = 0;
    long count = 0;
    dynamic_cast<MessageQueueService&>(*queue).GetAttributes(flags, most, longest, count);
    EXPECT_EQ(std::tuple(flags, most, longest, count), std::tuple(O_NONBLOCK, 3, size, 3));
    EXPECT_EQ(Receive(*queue), "32767 high");
    EXPECT_EQ(Receive(*queue, 1000), "1 low");
    EXPECT_EQ(Receive(*queue), "1 low again");
    EXPECT_EQ(Receive(*queue), "none");
    queue->Send("", 0, 7, 0);
    EXPECT_EQ(queue->GetMessageCount(), 1);
    EXPECT_EQ(Receive(*queue), "none");
    EXPECT_EQ(queue->GetMessageCount(), 0);
}

TEST_F(MessageQueueTest, TwoProcessesFillAndDrainIt) {
    const auto queue = Make(true);
    constexpr int count = 1000;
    Child sender([this] {
        const std::unique_ptr<IMessageQueueService> opened(factory->CreateMessageQueue(name, true));
        for (int i = 0; i < count; ++i) {
            opened->Send(reinterpret_cast<const char*>(&i), sizeof i, i % 2 == 0 ? 1 : 5, i % 3 == 0 ? 0 : 60000);
        }
        return 0;
    });
    // The order within each priority stays.
    int next[] = {0, 1};
    for (int i = 0; i < count; ++i) {
        char buffer[size];
        unsigned int priority = 0;
        ASSERT_EQ(queue->Receive(buffer, size, priority, i % 3 == 0 ? 0 : 60000), static_cast<int>(sizeof(int)));
        int number = 0;
        std::copy_n(buffer, sizeof number, reinterpret_cast<char*>(&number));
        ASSERT_EQ(priority, number % 2 == 0 ? 1U : 5U);
        ASSERT_EQ(std::exchange(next[number % 2], number + 2), number);
    }
    EXPECT_EQ(sender.Wait(), 0);
}

TEST_F(MessageQueueTest, WaitsAsLongAsItIsTold) {
    const auto blocking = Make(true);
    const auto polling = Make(false, OpenMode::Open);
    for (const bool isBlocking : {false, true}) {
        EXPECT_EQ((isBlocking ? blocking : polling)->IsBlocking(), isBlocking);
        EXPECT_EQ(MessageQueueService(name, isBlocking).IsBlocking(), isBlocking);
    }
    EXPECT_TRUE(Takes<system_clock>(milliseconds(50), [&] { EXPECT_EQ(Receive(*blocking, 50), "none"); }));
    EXPECT_EQ(Receive(*polling), "none");
    EXPECT_EQ(Receive(*polling, 60000), "none");
    for (int i = 0; i < 3; ++i) {
        polling->Send("x", 1, 0, 0);
    }
    EXPECT_TRUE(Takes<system_clock>(milliseconds(50), [&] {
        EXPECT_TRUE(Throws([&] { blocking->Send("x", 1, 0, 50); }, notSent + "Connection timed out."));
    }));
    for (const unsigned long timeoutMs : {0UL, 60000UL}) {
        EXPECT_TRUE(
            Throws([&] { polling->Send("x", 1, 0, timeoutMs); }, notSent + "Resource temporarily unavailable."));
    }
}

TEST_F(MessageQueueTest, OpensAsItIsTold) {
    const std::string failed = "'MessageQueueService' Cannot open or create message queue. Error: ";
    EXPECT_TRUE(
        Throws([this] { factory->CreateMessageQueue(name, true); },
               "'MessageQueueService' Cannot open message queue " + name + ". Error No such file or directory."));
    EXPECT_TRUE(Throws([this] { Make(true, OpenMode::Open); }, failed + "No such file or directory"));
    EXPECT_TRUE(
        Throws([this] { Make(true, static_cast<OpenMode>(3)); }, "'SetOpenMode' Unsupported OpenMode requested."));
    EXPECT_TRUE(Throws([this] { Make(true, OpenMode::CreateNew, static_cast<Access>(3)); },
                       "'SetPermissions' Unsupported Permissions requested."));
    EXPECT_FALSE(NameExists());

    const mode_t mask = umask(0);
    {
        const int descriptor = NextDescriptor();
        const MessageQueueService standard(name, OpenMode::OpenOrCreate, Access::ReadWrite, false);
        struct stat status {};
        EXPECT_FALSE(standard.IsBlocking());
        EXPECT_EQ(standard.GetMessageCount(), 0);
        EXPECT_GT(standard.GetMaxMessageCount(), 3);
        // A queue's descriptor is that of a file.
        EXPECT_EQ(fstat(descriptor, &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0600U);
        EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    }
    umask(mask);
    EXPECT_TRUE(Throws([this] { Make(true); }, failed + "File exists"));
    const auto writer = Make(true, OpenMode::OpenOrCreate, Access::WriteOnly);
    const auto reader = Make(true, OpenMode::Open, Access::ReadOnly);
    writer->Send("x", 1, 0, 0);
    EXPECT_TRUE(Throws([&] { Receive(*writer); }, notReceived + badDescriptor));
    EXPECT_TRUE(Throws([&] { reader->Send("x", 1, 0, 0); }, notSent + badDescriptor));
    EXPECT_TRUE(Throws([&] { Receive(*reader); }, notReceived + "Message too long."));
    char buffer[8192];
    unsigned int priority = 0;
    EXPECT_EQ(reader->Receive(buffer, sizeof buffer, priority, 0), 1);
}

TEST_F(MessageQueueTest, ClosedQueueTouchesNoOtherThatHasItsNumberOrItsName) {
    MessageQueueService closed(name, OpenMode::CreateNew, Access::ReadWrite, true, 3, size);
    closed.Close();
    closed.Close();
    // Gets the same number.
    const auto other = Make(true, OpenMode::Open);
    other->Send("other's", 7, 0, 0);
    for (const unsigned long timeoutMs : {0UL, 9UL}) {
        EXPECT_TRUE(Throws([&] { closed.Send("x", 1, 0, timeoutMs); }, notSent + badDescriptor));
        EXPECT_TRUE(Throws([&] { Receive(closed, timeoutMs); }, notReceived + badDescriptor));
    }
    EXPECT_TRUE(
        Throws([&] { closed.IsBlocking(); }, "VeException in function 'GetAttributes'. Error Bad file descriptor"));
    closed.Unlink();
    EXPECT_FALSE(NameExists());
    const auto successor = Make(true);
    closed.Unlink();
    EXPECT_TRUE(NameExists());
    EXPECT_EQ(Receive(*other), "0 other's");
    other->Unlink();
    EXPECT_FALSE(NameExists());
}

TEST_F(MessageQueueTest, NothingToReceiveIsAFailureWhereItCannotBe) {
    const auto queue = Make(true);
    // The error is that of the call, whatever the question for the kind of queue leaves behind.
    FailingCall question("mq_getattr", [] { errno = EIO; });
    question.InAnyThread();
    // Only a queue that does not wait has no message at once; only a wait with a limit runs out of time.
    for (const auto& [error, text] :
         {std::pair(EAGAIN, "Resource temporarily unavailable."), {ETIMEDOUT, "Connection timed out."}}) {
        const FailingCall call("mq_receive", -1, error);
        EXPECT_TRUE(Throws([&] { Receive(*queue); }, notReceived + text));
    }
}

}  // namespace
