// Messages between processes: a sensor's process sends its readings and, last, an alarm, and ends. The queue keeps
// them, and the alarm comes first.

#include <Kel/System/Ve/Adapters/Owned.h>
#include <Kel/System/Ve/Adapters/Runtime.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <string>
#include <vector>

using namespace Kel::System::Ve;
using Adapters::Own;
using Internal::ServiceFactory;

namespace {

struct Message {
    int sensor;
    double value;
};

constexpr unsigned int routine = 0;
constexpr unsigned int alarm = 10;  // the higher comes first
constexpr int readings = 4;

void Send(IMessageQueueService& queue, const Message& message, unsigned int priority) {
    char bytes[sizeof message];
    std::memcpy(bytes, &message, sizeof message);
    queue.Send(bytes, sizeof bytes, priority, 10000);  // waits up to ten seconds for room, then throws
}

/// The other program: it knows the name of the queue and nothing else.
[[noreturn]] void RunSensor(ServiceFactory& factory, const Kel::BasicString& name) {
    int exitCode = 1;
    try {
        const auto queue = Own(factory.CreateMessageQueue(name, IMessageQueueService::OpenMode::Open,
                                                          IMessageQueueService::Access::WriteOnly, true));
        for (int i = 1; i <= readings; ++i) {
            Send(*queue, {i, 20.5}, routine);
        }
        Send(*queue, {3, 95}, alarm);
        exitCode = 0;
    } catch (const Kel::Exception& exception) {
        std::cerr << exception.ToString();
    }
    _exit(exitCode);
}

bool Run(ServiceFactory& factory) {
    const Kel::BasicString name = "/kel-messages-" + std::to_string(getpid());
    const auto queue =
        Own(factory.CreateMessageQueue(name, IMessageQueueService::OpenMode::CreateNew,
                                       IMessageQueueService::Access::ReadOnly, true, 8, sizeof(Message)));
    const pid_t child = fork();
    if (child == 0) {
        RunSensor(factory, name);
    }
    int status = -1;
    const bool hasSent = child > 0 && waitpid(child, &status, 0) == child && status == 0;

    // The sensor is gone; what it has sent is there.
    std::vector<int> sensors;
    for (long waiting = queue->GetMessageCount(); waiting > 0; --waiting) {
        char bytes[sizeof(Message)];
        unsigned int priority = 0;
        if (queue->Receive(bytes, sizeof bytes, priority, 10000) == sizeof bytes) {
            Message message{};
            std::memcpy(&message, bytes, sizeof message);
            std::cout << (priority == alarm ? "ALARM " : "") << "sensor " << message.sensor << ": " << message.value
                      << "\n";
            sensors.push_back(message.sensor);
        }
    }
    char bytes[sizeof(Message)];
    unsigned int priority = 0;
    const bool isEmpty = queue->Receive(bytes, sizeof bytes, priority, 10) == 0;  // nothing came within 10 ms
    queue->Unlink();                                                              // once nobody needs the name any more
    return hasSent && isEmpty && sensors == std::vector<int>{3, 1, 2, 3, 4};
}

}  // namespace

int main() {
    const Adapters::Runtime runtime;
    return Run(*runtime) ? 0 : 1;
}
