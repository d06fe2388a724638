#include "Bare.h"
#include "Factory.h"
#include "Families.h"
#include "Works.h"

#include <Kel/System/Ve/IMessageQueueService.h>

#include <fcntl.h>
#include <mqueue.h>

#include <memory>

using Kel::System::Ve::IMessageQueueService;

namespace {

constexpr unsigned int size = 64;
constexpr unsigned int priority = 1;
constexpr char message[size] = {};

// A name is needed only until a queue is open.
struct LibraryQueue {
    explicit LibraryQueue(const Kel::BasicString& name = UniqueName("/kel-bench-"))
        : queue(Factory().CreateMessageQueue(name, IMessageQueueService::OpenMode::CreateNew,
                                             IMessageQueueService::Access::ReadWrite, true, 4, size)) {
        Expect(mq_unlink(name.c_str()) == 0);
    }

    void Send(unsigned long timeoutMs = 0) { queue->Send(message, size, priority, timeoutMs); }
    void Receive(unsigned long timeoutMs = 0) {
        char buffer[size];
        unsigned int received = 0;
        Expect(queue->Receive(buffer, size, received, timeoutMs) == static_cast<int>(size));
    }
    void SendWithin(std::chrono::milliseconds limit) { Send(static_cast<unsigned long>(limit.count())); }
    void ReceiveWithin(std::chrono::milliseconds limit) { Receive(static_cast<unsigned long>(limit.count())); }

    std::unique_ptr<IMessageQueueService> queue;
};

struct BareQueue {
    explicit BareQueue(const std::string& name = UniqueName("/kel-bench-")) {
        mq_attr attributes{};
        attributes.mq_maxmsg = 4;
        attributes.mq_msgsize = size;
        queue = mq_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600, &attributes);
        Expect(queue != -1 && mq_unlink(name.c_str()) == 0);
    }
    ~BareQueue() { mq_close(queue); }
    BareQueue(const BareQueue&) = delete;
    BareQueue& operator=(const BareQueue&) = delete;

    void Send() { Expect(mq_send(queue, message, size, priority) == 0); }
    void Receive() {
        char buffer[size];
        unsigned int received = 0;
        Expect(mq_receive(queue, buffer, size, &received) == size);
    }
    void SendWithin(std::chrono::seconds limit) {
        const timespec deadline = In(limit);
        Expect(mq_timedsend(queue, message, size, priority, &deadline) == 0);
    }
    void ReceiveWithin(std::chrono::seconds limit) {
        const timespec deadline = In(limit);
        char buffer[size];
        unsigned int received = 0;
        Expect(mq_timedreceive(queue, buffer, size, &received, &deadline) == size);
    }

    mqd_t queue;
};

}  // namespace

void RegisterMessageQueues() {
    RegisterQueues<LibraryQueue>("library");
    RegisterQueues<BareQueue>("bare");
}
