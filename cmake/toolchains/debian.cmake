# What the cross builds have in common. The sysroot is made by scripts/target-root; another one may be named with
# -DCMAKE_SYSROOT=... or in the environment variable KEL_ARM_SYSROOT or KEL_ARM64_SYSROOT.
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/architectures.txt row REGEX "^${architecture} ")
string(REGEX REPLACE " +" ";" row "${row}")
list(GET row 1 CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
list(GET row 2 CMAKE_LIBRARY_ARCHITECTURE)
list(GET row 3 CMAKE_SYSTEM_PROCESSOR)
list(GET row 4 emulator)
list(SUBLIST row 7 -1 options)
list(JOIN options " " CMAKE_CXX_FLAGS_INIT)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)

if(NOT CMAKE_SYSROOT)
    string(TOUPPER KEL_${architecture}_SYSROOT variable)
    if(DEFINED ENV{${variable}})
        set(CMAKE_SYSROOT "$ENV{${variable}}")
    else()
        get_filename_component(CMAKE_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../.cache/${architecture}/sysroot" ABSOLUTE)
    endif()
endif()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# What pkg-config finds, too, is in the sysroot.
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")

# GLib's own allocator forgets, in a forked child, that the thread which held its lock is not there: a child of a program
# with several threads waited for it for ever, inside the emulator. The C library's allocator takes care of that.
set(CMAKE_CROSSCOMPILING_EMULATOR env G_SLICE=always-malloc qemu-${emulator} -L "${CMAKE_SYSROOT}")

foreach(name row options emulator variable)
    unset(${name})  # The program's own are not touched.
endforeach()
