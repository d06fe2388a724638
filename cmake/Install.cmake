# What `cmake --install` puts where. No installed file depends on the prefix: the tree may be moved.

# A system that holds several architectures keeps their libraries apart. On this machine's own, CMake knows that by itself.
if(CMAKE_CROSSCOMPILING AND CMAKE_LIBRARY_ARCHITECTURE AND CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND
    NOT DEFINED CMAKE_INSTALL_LIBDIR)
    set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/KelSystemVe)
set_target_properties(KelSystemVe PROPERTIES EXPORT_NAME SystemVe)
install(TARGETS KelSystemVe EXPORT KelSystemVe
    LIBRARY COMPONENT Runtime NAMELINK_COMPONENT Development
    FILE_SET HEADERS COMPONENT Development
    ${configuredHeaders}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}  # for users whose CMake knows no file sets
)
install(EXPORT KelSystemVe NAMESPACE Kel:: FILE KelSystemVeTargets.cmake
    DESTINATION ${packageDir} COMPONENT Development)

file(CONFIGURE OUTPUT KelSystemVeConfig.cmake @ONLY CONTENT [[
set(KelSystemVe_TIME_BITS @timeBits@)
get_directory_property(KelSystemVe_definitions COMPILE_DEFINITIONS)
if(" ${CMAKE_CXX_FLAGS};${KelSystemVe_definitions}" MATCHES "[ ;D]_TIME_BITS=([0-9]+)" AND
    NOT CMAKE_MATCH_1 EQUAL KelSystemVe_TIME_BITS)
    set(KelSystemVe_FOUND FALSE)
    set(KelSystemVe_NOT_FOUND_MESSAGE
        "libKel.System.Ve is built with a time_t of @timeBits@ bits, this project with _TIME_BITS=${CMAKE_MATCH_1}.")
    return()
endif()
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include("${CMAKE_CURRENT_LIST_DIR}/KelSystemVeTargets.cmake")
]])
# The soname is the major version.
write_basic_package_version_file(KelSystemVeConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/KelSystemVeConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/KelSystemVeConfigVersion.cmake
    DESTINATION ${packageDir} COMPONENT Development)

file(RELATIVE_PATH prefixFromPkgConfig ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefixFromPkgConfig ${prefixFromPkgConfig})
get_target_property(options KelSystemVe INTERFACE_COMPILE_OPTIONS)
list(JOIN options " " pkgConfigFlags)
# Some distributions give whole paths; such a tree cannot be moved.
foreach(kind Lib Include)
    string(TOUPPER ${kind} upper)
    set(folder ${CMAKE_INSTALL_${upper}DIR})
    cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY "\${prefix}" OUTPUT_VARIABLE pkgConfig${kind}Dir)
endforeach()
configure_file(cmake/kel-system-ve.pc.in kel-system-ve.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kel-system-ve.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT Development)
