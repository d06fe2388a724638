#pragma once

#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Exceptions/VeException.h>

#include <cstdint>

namespace Kel::System::Ve::Exceptions {

/// A named resource has a path that cannot be used.
class KEL_API InvalidPathException : public VeException {
public:
    using VeException::VeException;
    ~InvalidPathException() override;

    /// 259.
    std::int32_t GetTypeCodeInternal() const override;
};

}  // namespace Kel::System::Ve::Exceptions
