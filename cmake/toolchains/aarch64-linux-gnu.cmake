# Cross build for 64-bit ARM.
set(architecture arm64)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
