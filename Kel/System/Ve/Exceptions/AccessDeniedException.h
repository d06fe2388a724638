#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <cstdint>

namespace Kel::System::Ve::Exceptions {

/// A named resource may not be accessed.
class KEL_API AccessDeniedException : public VeException {
public:
    using VeException::VeException;
    ~AccessDeniedException() override;

    /// 260.
    std::int32_t GetTypeCodeInternal() const override;
};

}  // namespace Kel::System::Ve::Exceptions
