#include <Kel/System/Ve/ServiceType.h>

namespace Kel {

using System::Ve::ServiceType;

template <>
const EnumDictionary<ServiceType>& EnumDictionary<ServiceType>::GetInstance() {
    // Never destroyed: whoever disposes the factory at the very end of the process still gets the names.
    static const auto& dictionary = *new EnumDictionary(
        {
            {ServiceType::Process, "Process"},
            {ServiceType::SharedLibrary, "SharedLibrary"},
            {ServiceType::Semaphore, "Semaphore"},
            {ServiceType::Mutex, "Mutex"},
            {ServiceType::Thread, "Thread"},
            {ServiceType::SharedMemory, "SharedMemory"},
            {ServiceType::MessageQueue, "MessageQueue"},
            {ServiceType::Socket, "Socket"},
            {ServiceType::Timer, "Timer"},
            // Unlike all others this name ends in "Service"; it is printed and parsed only like this.
            {ServiceType::RWLock, "RWLockService"},
            {ServiceType::File, "File"},
            {ServiceType::ConditionVariable, "ConditionVariable"},
            {ServiceType::TraceController, "TraceController"},
            {ServiceType::SignalHandler, "SignalHandler"},
        },
        BasicString::Empty);
    return dictionary;
}

}  // namespace Kel

namespace Kel::System::Ve {

std::ostream& operator<<(std::ostream& stream, ServiceType type) {
    EnumDictionary<ServiceType>::GetInstance().WriteEnumString(stream, type);
    return stream;
}

std::istream& operator>>(std::istream& stream, ServiceType& type) {
    EnumDictionary<ServiceType>::GetInstance().ReadEnumString(stream, type);
    return stream;
}

}  // namespace Kel::System::Ve
