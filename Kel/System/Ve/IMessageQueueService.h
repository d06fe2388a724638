#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/IServiceObject.h>

namespace Kel::System::Ve {

/// A queue of messages with priorities, known by its name to all processes of the user. Messages of higher priority
/// come first, those of the same priority in the order in which they were sent. The queue and what is in it stay until
/// it is unlinked, whoever has it open. All operations may be called from any thread; one that Close overtakes may meet
/// a queue that has got the same descriptor since: threads that use the object are better ended first. Send and Receive
/// alone may wait, and alone are cancellation points. The handler of a signal, unless it was installed with SA_RESTART,
/// ends a wait with an exception. What fails throws VeException; once the queue is closed, everything does but Close
/// and Unlink.
class KEL_API IMessageQueueService : public virtual IServiceObject {
public:
    /// What is made or opened. Any other value is refused.
    enum class OpenMode : int {
        CreateNew = 0,     ///< creates; fails when it exists
        Open = 1,          ///< fails when it does not exist
        OpenOrCreate = 2,  ///< what exists keeps its own size
    };

    /// What this object may do. Any other value is refused.
    enum class Access : int {
        ReadOnly = 0,   ///< Receive
        WriteOnly = 1,  ///< Send
        ReadWrite = 2,  ///< both
    };

    /// Returns whether Send waits for room and Receive for a message.
    virtual bool IsBlocking() const = 0;

    /// Returns how many messages are in the queue; there may be more or fewer by then.
    virtual long GetMessageCount() const = 0;

    /// Returns how many messages the queue holds at most.
    virtual long GetMaxMessageCount() const = 0;

    /// Returns how many bytes a message has at most.
    virtual long GetMaxMessageSize() const = 0;

    /// Puts a message of `length` bytes into the queue (mq_send, mq_timedsend). `priority` is 0 to 32767. `timeoutMs`
    /// is the limit in milliseconds, on the realtime clock, for which a blocking queue waits for room; 0 waits without
    /// limit. Returns 0. Throws also when there is no room, in time or at all, and when the message is too long.
    virtual int Send(const char* data, unsigned int length, unsigned int priority, unsigned long timeoutMs) = 0;

    /// Takes the first message out of the queue (mq_receive, mq_timedreceive). `length` is the room in `buffer`, at
    /// least the queue's largest message. `timeoutMs` as in Send. Returns the length of the message; 0 when there was
    /// none, in time or at all, and also for a message of length 0. `priority` becomes that of the message, and stays
    /// as it is when there was none: 0xFFFFFFFF, set before, tells the two apart. Throws also when `buffer` is too
    /// short.
    virtual int Receive(char* buffer, unsigned int length, unsigned int& priority, unsigned long timeoutMs) = 0;

    /// Closes the queue for this object (mq_close). Does nothing when closed already.
    virtual void Close() = 0;

    /// Closes the queue and removes its name (mq_unlink); those who have it open keep it. Does nothing once it has
    /// removed the name.
    virtual void Unlink() = 0;
};

}  // namespace Kel::System::Ve
