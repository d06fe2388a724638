#include <Kel/System/Ve/Internal/Linux/MessageQueueService.h>

#include <Kel/Core/CancellationDisabled.h>
#include <Kel/Core/ErrorText.h>
#include <Kel/System/Ve/Exceptions/VeException.h>
#include <Kel/System/Ve/Internal/Linux/SystemCall.h>
#include <Kel/System/Ve/Internal/Linux/TimeoutConversion.h>

#include <fcntl.h>

#include <cerrno>

namespace Kel::System::Ve::Internal::Linux {

using Exceptions::VeException;

namespace {

constexpr char serviceName[] = "MessageQueueService";
constexpr char creationFailed[] = "'{0}' Cannot open or create message queue. Error: {1}";
constexpr mode_t ownerOnly = 0600;

}  // namespace

MessageQueueService::MessageQueueService(const BasicString& queueName, bool blocking)
    : ServiceObjectBase(serviceName, ServiceType::MessageQueue, true), name(queueName) {
    queueDescriptor = mq_open(name.c_str(), Flags(OpenMode::Open, Access::ReadWrite, blocking));
    if (queueDescriptor == -1) {
        const int errorNumber = errno;
        throw VeException("'{0}' Cannot open message queue {1}. Error {2}.", __func__, name, ErrorText(errorNumber));
    }
    isOpen = true;
}

MessageQueueService::MessageQueueService(const BasicString& queueName, OpenMode mode, Access access, bool blocking)
    : ServiceObjectBase(serviceName, ServiceType::MessageQueue, true), name(queueName) {
    queueDescriptor = mq_open(name.c_str(), Flags(mode, access, blocking), ownerOnly, nullptr);
    CheckErrno(queueDescriptor, creationFailed);
    isOpen = true;
}

MessageQueueService::MessageQueueService(const BasicString& queueName, OpenMode mode, Access access, bool blocking,
                                         long maxMessageCount, long maxMessageSize)
    : ServiceObjectBase(serviceName, ServiceType::MessageQueue, true), name(queueName) {
    mq_attr attributes{};
    attributes.mq_flags = blocking ? 0 : O_NONBLOCK;
    attributes.mq_maxmsg = maxMessageCount;
    attributes.mq_msgsize = maxMessageSize;
    queueDescriptor = mq_open(name.c_str(), Flags(mode, access, blocking), ownerOnly, &attributes);
    CheckErrno(queueDescriptor, creationFailed);
    isOpen = true;
}

MessageQueueService::~MessageQueueService() {
    const CancellationDisabled disabled;
    Close();
}

void MessageQueueService::SetOpenMode(int& flags, OpenMode mode, bool blocking) {
    switch (mode) {
        case OpenMode::CreateNew:
            flags = O_CREAT | O_EXCL;
            break;
        case OpenMode::Open:
            break;
        case OpenMode::OpenOrCreate:
            flags = O_CREAT;
            break;
        default:
            throw VeException("'{0}' Unsupported OpenMode requested.", __func__);
    }
    if (!blocking) {
        flags |= O_NONBLOCK;
    }
}

void MessageQueueService::SetPermissions(int& flags, Access access) {
    switch (access) {
        case Access::ReadOnly:
            flags |= O_RDONLY;
            break;
        case Access::WriteOnly:
            flags |= O_WRONLY;
            break;
        case Access::ReadWrite:
            flags |= O_RDWR;
            break;
        default:
            throw VeException("'{0}' Unsupported Permissions requested.", __func__);
    }
}

int MessageQueueService::Flags(OpenMode mode, Access access, bool blocking) {
    int flags = 0;
    SetOpenMode(flags, mode, blocking);
    SetPermissions(flags, access);
    return flags;
}

bool MessageQueueService::IsBlocking() const { return GetAttributes().mq_flags == 0; }

long MessageQueueService::GetMessageCount() const { return GetAttributes().mq_curmsgs; }

long MessageQueueService::GetMaxMessageCount() const { return GetAttributes().mq_maxmsg; }

long MessageQueueService::GetMaxMessageSize() const { return GetAttributes().mq_msgsize; }

void MessageQueueService::GetAttributes(long& flags, long& maxMessageCount, long& maxMessageSize,
                                        long& currentMessageCount) const {
    const mq_attr attributes = GetAttributes();
    flags = attributes.mq_flags;
    maxMessageCount = attributes.mq_maxmsg;
    maxMessageSize = attributes.mq_msgsize;
    currentMessageCount = attributes.mq_curmsgs;
}

mq_attr MessageQueueService::GetAttributes() const {
    mq_attr attributes{};
    CheckErrno(mq_getattr(OpenDescriptor(), &attributes), "VeException in function '{0}'. Error {1}");
    return attributes;
}

int MessageQueueService::Send(const char* data, unsigned int length, unsigned int priority, unsigned long timeoutMs) {
    int result = 0;
    if (timeoutMs == 0) {
        result = mq_send(OpenDescriptor(), data, length, priority);
    } else {
        timespec deadline;
        TimeoutConversion::Convert(timeoutMs, deadline, TimeoutConversion::Realtime);
        result = mq_timedsend(OpenDescriptor(), data, length, priority, &deadline);
    }
    CheckErrno(result, "Could not send message. Error {1}.");
    return 0;
}

int MessageQueueService::Receive(char* buffer, unsigned int length, unsigned int& priority, unsigned long timeoutMs) {
    ssize_t result = 0;
    if (timeoutMs == 0) {
        result = mq_receive(OpenDescriptor(), buffer, length, &priority);
    } else {
        timespec deadline;
        TimeoutConversion::Convert(timeoutMs, deadline, TimeoutConversion::Realtime);
        result = mq_timedreceive(OpenDescriptor(), buffer, length, &priority, &deadline);
    }
    if (result != -1) {
        return static_cast<int>(result);
    }
    const int errorNumber = errno;
    if ((errorNumber == EAGAIN && !IsBlocking()) || (errorNumber == ETIMEDOUT && timeoutMs != 0)) {
        return 0;
    }
    ThrowFailure(errorNumber, "Could not receive message. Error {1}.");
}

void MessageQueueService::Close() {
    // Before an Unlink at the same time takes it away.
    const mqd_t open = queueDescriptor;
    // Of several threads one closes: a second time would close whatever has got the number since.
    if (isOpen.exchange(false) && mq_close(open) == -1) {
        const int errorNumber = errno;
        isOpen = true;
        ThrowFailure(errorNumber, "Could not close message queue. Error {1}.");
    }
}

void MessageQueueService::Unlink() {
    if (queueDescriptor == -1) {
        return;
    }
    Close();
    // Of several threads one unlinks: a second time would meet whatever has got the name since.
    const mqd_t closed = queueDescriptor.exchange(-1);
    if (closed != -1 && mq_unlink(name.c_str()) == -1) {
        const int errorNumber = errno;
        queueDescriptor = closed;
        ThrowFailure(errorNumber, "Could not unlink message queue. Error {1}.");
    }
}

}  // namespace Kel::System::Ve::Internal::Linux
