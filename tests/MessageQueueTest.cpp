#include "support/Test.h"
#include "support/UniqueName.h"

#include <fcntl.h>
#include <mqueue.h>

namespace {

using OpenMode = IMessageQueueService::OpenMode;
using Access = IMessageQueueService::Access;

constexpr unsigned int size = 16;
constexpr char creationFailed[] = "'MessageQueueService' Cannot open or create message queue. Error: ";

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
};

TEST_F(MessageQueueTest, MessagesComeByPriorityThenByAge) {
    const auto queue = Make(false);
    queue->Send("low", 3, 1, 0);
    queue->Send("high", 4, 32767, 0);
    queue->Send("low again", 9, 1, 1000);
    EXPECT_EQ(queue->GetMessageCount(), 3);
    EXPECT_EQ(queue->GetMaxMessageCount(), 3);
    EXPECT_EQ(queue->GetMaxMessageSize(), static_cast<long>(size));
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
    EXPECT_TRUE(blocking->IsBlocking());
    EXPECT_FALSE(MessageQueueService(name, false).IsBlocking());
    EXPECT_TRUE(MessageQueueService(name, true).IsBlocking());
    EXPECT_FALSE(polling->IsBlocking());

    auto start = system_clock::now();
    EXPECT_EQ(Receive(*blocking, 50), "none");
    EXPECT_GE(system_clock::now() - start, milliseconds(50));
    EXPECT_EQ(Receive(*polling), "none");
    EXPECT_EQ(Receive(*polling, 60000), "none");
    for (int i = 0; i < 3; ++i) {
        polling->Send("x", 1, 0, 0);
    }
    start = system_clock::now();
    EXPECT_TRUE(Throws<VeException>([&] { blocking->Send("x", 1, 0, 50); },
                                    "Could not send message. Error Connection timed out."));
    EXPECT_GE(system_clock::now() - start, milliseconds(50));
    for (const unsigned long timeoutMs : {0UL, 60000UL}) {
        EXPECT_TRUE(Throws<VeException>([&] { polling->Send("x", 1, 0, timeoutMs); },
                                        "Could not send message. Error Resource temporarily unavailable."));
    }
}

TEST_F(MessageQueueTest, OpensAsItIsTold) {
    EXPECT_TRUE(Throws<VeException>(
        [this] { factory->CreateMessageQueue(name, true); },
        "'MessageQueueService' Cannot open message queue " + name + ". Error No such file or directory."));
    EXPECT_TRUE(Throws<VeException>([this] { Make(true, OpenMode::Open); },
                                    creationFailed + std::string("No such file or directory")));
    for (const auto& [mode, access, message] :
         {std::tuple(static_cast<OpenMode>(3), Access::ReadWrite, "'SetOpenMode' Unsupported OpenMode requested."),
          std::tuple(OpenMode::CreateNew, static_cast<Access>(3),
                     "'SetPermissions' Unsupported Permissions requested.")}) {
        EXPECT_TRUE(Throws<VeException>([&, mode = mode, access = access] { Make(true, mode, access); }, message));
    }
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
    EXPECT_TRUE(Throws<VeException>([this] { Make(true); }, creationFailed + std::string("File exists")));
    const auto writer = Make(true, OpenMode::OpenOrCreate, Access::WriteOnly);
    const auto reader = Make(true, OpenMode::Open, Access::ReadOnly);
    EXPECT_GT(writer->GetMaxMessageCount(), 3);
    writer->Send("x", 1, 0, 0);
    char buffer[8192];
    unsigned int priority = 0;
    EXPECT_TRUE(Throws<VeException>([&] { writer->Receive(buffer, sizeof buffer, priority, 0); },
                                    "Could not receive message. Error Bad file descriptor."));
    EXPECT_TRUE(
        Throws<VeException>([&] { reader->Send("x", 1, 0, 0); }, "Could not send message. Error Bad file descriptor."));
    EXPECT_TRUE(Throws<VeException>([&] { reader->Receive(buffer, size, priority, 0); },
                                    "Could not receive message. Error Message too long."));
    EXPECT_EQ(reader->Receive(buffer, sizeof buffer, priority, 0), 1);
}

TEST_F(MessageQueueTest, ClosedQueueTouchesNoOtherThatHasItsNumber) {
    MessageQueueService closed(name, OpenMode::CreateNew, Access::ReadWrite, true, 3, size);
    closed.Close();
    closed.Close();
    // Gets the same number.
    const auto other = Make(true, OpenMode::Open);
    other->Send("other's", 7, 0, 0);
    const struct {
        std::function<void()> operation;
        std::string message;
    } table[] = {{[&] { closed.Send("x", 1, 0, 0); }, "Could not send message. Error Bad file descriptor."},
                 {[&] { closed.Send("x", 1, 0, 9); }, "Could not send message. Error Bad file descriptor."},
                 {[&] { Receive(closed); }, "Could not receive message. Error Bad file descriptor."},
                 {[&] { Receive(closed, 9); }, "Could not receive message. Error Bad file descriptor."},
                 {[&] { closed.IsBlocking(); }, "VeException in function 'GetAttributes'. Error Bad file descriptor"}};
    for (const auto& row : table) {
        EXPECT_TRUE(Throws<VeException>(row.operation, row.message));
    }
    closed.Unlink();
    EXPECT_FALSE(NameExists());
    // Once is enough: another may have taken the name.
    const auto successor = Make(true);
    closed.Unlink();
    EXPECT_TRUE(NameExists());
    EXPECT_EQ(Receive(*other), "0 other's");
    other->Unlink();
    EXPECT_FALSE(NameExists());
}

TEST_F(MessageQueueTest, FailedCallsAreReported) {
    const auto queue = Make(true);
    ExpectFailures(
        Told::ByErrno,
        {{"mq_open", [this] { Make(true); }, creationFailed + std::string("{}")},
         {"mq_send", [&] { queue->Send("x", 1, 0, 0); }, "Could not send message. Error {}."},
         {"mq_timedsend", [&] { queue->Send("x", 1, 0, 1); }, "Could not send message. Error {}."},
         {"mq_receive", [&] { Receive(*queue); }, "Could not receive message. Error {}."},
         {"mq_timedreceive", [&] { Receive(*queue, 1); }, "Could not receive message. Error {}."},
         {"clock_gettime", [&] { Receive(*queue, 1); }, "Could not compute timeout."},
         {"mq_getattr", [&] { queue->GetMessageCount(); }, "VeException in function 'GetAttributes'. Error {}"},
         {"mq_close", [&] { queue->Close(); }, "Could not close message queue. Error {}."},
         {"mq_unlink", [&] { queue->Unlink(); }, "Could not unlink message queue. Error {}."}});
    EXPECT_TRUE(NameExists());
    queue->Unlink();
    EXPECT_FALSE(NameExists());

    // The error is that of the call, whatever the question for the kind of queue leaves behind.
    {
        const auto waiting = Make(true);
        FailingCall question("mq_getattr", [] { errno = EIO; });
        question.InAnyThread();
        const FailingCall call("mq_receive", -1, EAGAIN);
        EXPECT_TRUE(Throws<VeException>([&] { Receive(*waiting); },
                                        "Could not receive message. Error Resource temporarily unavailable."));
        waiting->Unlink();
    }

    // Only a queue that does not wait has no message at once; only a wait with a limit runs out of time.
    const auto another = Make(true);
    for (const auto& [error, text] :
         {std::pair(EAGAIN, "Resource temporarily unavailable"), std::pair(ETIMEDOUT, "Connection timed out")}) {
        const FailingCall call("mq_receive", -1, error);
        EXPECT_TRUE(Throws<VeException>([&] { Receive(*another); },
                                        "Could not receive message. Error " + std::string(text) + "."));
    }
}

}  // namespace
