# Cross build for 32-bit ARM, hard float, Thumb code.
set(architecture arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
