#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <cstdint>

namespace Kel::System::Ve::Exceptions {

/// A named resource is already there.
class KEL_API AlreadyExistsException : public VeException {
public:
    using VeException::VeException;
    ~AlreadyExistsException() override;

    /// 258.
    std::int32_t GetTypeCodeInternal() const override;
};

}  // namespace Kel::System::Ve::Exceptions
