#pragma once

#include <Kel/Core/EnumDictionary.h>
#include <Kel/Core/Export.h>

#include <cstdint>
#include <istream>
#include <ostream>

namespace Kel::System::Ve {

/// The kinds of service. The numbers are fixed: 8, 11, 12 and 13 are not in use, 18 has no name.
enum class ServiceType : std::int32_t {
    Process = 0,
    SharedLibrary = 1,
    Semaphore = 2,
    Mutex = 3,
    Thread = 4,
    SharedMemory = 5,
    MessageQueue = 6,
    Socket = 7,
    Timer = 9,
    RWLock = 10,
    File = 14,
    ConditionVariable = 15,
    TraceController = 16,
    SignalHandler = 17,
};

/// Writes the name of the type; the number of a type without a name, and then sets the stream's failbit.
KEL_API std::ostream& operator<<(std::ostream& stream, ServiceType type);

/// Reads one word. When it is not exactly the name of a type, leaves `type` as it was and sets the stream's failbit.
KEL_API std::istream& operator>>(std::istream& stream, ServiceType& type);

}  // namespace Kel::System::Ve

namespace Kel {

template <>
KEL_API const EnumDictionary<System::Ve::ServiceType>& EnumDictionary<System::Ve::ServiceType>::GetInstance();

}  // namespace Kel
