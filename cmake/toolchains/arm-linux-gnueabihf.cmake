# Cross build for 32-bit ARM, hard float, Thumb code. The sysroot is made by scripts/arm-root; another one may be
# named with -DCMAKE_SYSROOT=... or in the environment variable KEL_ARM_SYSROOT.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

if(NOT CMAKE_SYSROOT)
    if(DEFINED ENV{KEL_ARM_SYSROOT})
        set(CMAKE_SYSROOT "$ENV{KEL_ARM_SYSROOT}")
    else()
        get_filename_component(CMAKE_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../.cache/arm/sysroot" ABSOLUTE)
    endif()
endif()

set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a+fp -mfloat-abi=hard -mthumb")
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# What pkg-config finds, too, is in the sysroot.
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")

# GLib's own allocator forgets, in a forked child, that the thread which held its lock is not there: a child of a program
# with several threads waited for it for ever, inside the emulator. The C library's allocator takes care of that.
set(CMAKE_CROSSCOMPILING_EMULATOR env G_SLICE=always-malloc qemu-arm -L "${CMAKE_SYSROOT}")
