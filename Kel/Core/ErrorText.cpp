#include <Kel/Core/ErrorText.h>

#include <cerrno>
#include <cstring>

namespace Kel {

BasicString ErrorText(int errorNumber) {
    const int savedErrno = errno;
    char buffer[64];
    BasicString text = strerror_r(errorNumber, buffer, sizeof buffer);
    errno = savedErrno;
    return text;
}

}  // namespace Kel
