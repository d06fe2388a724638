#pragma once

// On a 32-bit platform `time_t` has 32 or 64 bits. Times are handed over in memory of the caller's, which has to be as
// large as the library takes it to be: what is compiled with the other width is refused: here where the
// width is known, which is all but a compiler that is given the sources' folder alone, and then by linker and loader.
#if __SIZEOF_POINTER__ == 4

#if __has_include(<Kel/Core/TimeWidthOfLibrary.h>)
#include <Kel/Core/TimeWidthOfLibrary.h>
#endif

#include <ctime>
#include <type_traits>

namespace Kel {

/// The library defines the marker of its own width, and no other.
template <int bits>
struct __attribute__((visibility("default"))) LibraryWithTimeBits {
    static const char marker;
};

/// Keeps a reference to that marker in each module which includes this.
template <int bits>
struct __attribute__((visibility("hidden"))) ModuleWithTimeBits {
    [[gnu::used, gnu::retain]] static inline const char* const library = &LibraryWithTimeBits<bits>::marker;
};

/// An argument of a template has to be defined: with this, each object that includes it defines the reference.
using ModuleTimeWidth =
    std::integral_constant<const char* const*, &ModuleWithTimeBits<int{sizeof(std::time_t) * 8}>::library>;

}  // namespace Kel

#endif
