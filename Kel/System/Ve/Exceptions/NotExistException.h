#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <cstdint>

namespace Kel::System::Ve::Exceptions {

/// A named resource is missing.
class KEL_API NotExistException : public VeException {
public:
    using VeException::VeException;
    ~NotExistException() override;

    /// 257.
    std::int32_t GetTypeCodeInternal() const override;
};

}  // namespace Kel::System::Ve::Exceptions
