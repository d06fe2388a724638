#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/MessageQueueServiceBase.h>

#include <mqueue.h>

#include <atomic>

namespace Kel::System::Ve::Internal::Linux {

/// The message queue service on Linux. Names begin with a slash. Queues that are created can be used by their owner
/// only. The descriptor is closed in programs that this process starts.
class KEL_API MessageQueueService final : public MessageQueueServiceBase {
public:
    /// Opens a queue that exists, to send and to receive.
    MessageQueueService(const BasicString& queueName, bool blocking);

    /// Opens or creates a queue; one that is created has the system's default size.
    MessageQueueService(const BasicString& queueName, OpenMode mode, Access access, bool blocking);

    /// The same; one that is created holds that many messages of that many bytes.
    MessageQueueService(const BasicString& queueName, OpenMode mode, Access access, bool blocking, long maxMessageCount,
                        long maxMessageSize);

    /// Closes the queue, and leaves its name. A failure ends the process.
    ~MessageQueueService() override;

    bool IsBlocking() const override;
    long GetMessageCount() const override;
    long GetMaxMessageCount() const override;
    long GetMaxMessageSize() const override;
    int Send(const char* data, unsigned int length, unsigned int priority, unsigned long timeoutMs) override;
    int Receive(char* buffer, unsigned int length, unsigned int& priority, unsigned long timeoutMs) override;
    void Close() override;
    void Unlink() override;

    /// All of the above at once (mq_getattr); `flags` is 0 or O_NONBLOCK.
    void GetAttributes(long& flags, long& maxMessageCount, long& maxMessageSize, long& currentMessageCount) const;

    /// Set, or add, the flags of mq_open. Throw VeException when there is no such mode or access.
    static void SetOpenMode(int& flags, OpenMode mode, bool blocking);
    static void SetPermissions(int& flags, Access access);

private:
    mq_attr GetAttributes() const;
    static int Flags(OpenMode mode, Access access, bool blocking);

    /// -1 once the queue is closed: its number may be another queue's by now.
    mqd_t OpenDescriptor() const { return isOpen ? queueDescriptor.load() : -1; }

    BasicString name;
    // Kept when the queue is closed; -1 once its name is removed.
    std::atomic<mqd_t> queueDescriptor{-1};
    std::atomic<bool> isOpen{false};
};

}  // namespace Kel::System::Ve::Internal::Linux
