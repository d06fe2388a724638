# What `cpack` makes: a Debian package for each component, as the presets package, package-arm and package-arm64 configure it.
set(runtimePackage libkel-system-ve${PROJECT_VERSION_MAJOR})
# As Debian names what has 64-bit time on a 32-bit machine: the library with the other, which has the same files, does not
# take its place.
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND timeBits EQUAL 64)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONFLICTS ${runtimePackage})
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_REPLACES ${runtimePackage})
    string(APPEND runtimePackage t64)
endif()
set(sameRuntime "${runtimePackage} (= ${PROJECT_VERSION})")

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL Runtime Development)
set(CPACK_PACKAGE_CONTACT "libKel.System.Ve developers <kel-system-ve@example.invalid>")
set(CPACK_STRIP_FILES ON)
# Whatever the umask of who makes them.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtimePackage})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION 
"Mutexes, threads, timers, sockets, message queues, shared memory, processes
and more, made by one factory and used through abstract interfaces.
This package contains the shared library.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
file(CONFIGURE OUTPUT triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkel-system-ve-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION 
"This package contains what programs are built with that use the library:
headers, and files for CMake and pkg-config.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ${sameRuntime})

if(KEL_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL Tools)
endif()
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME libkel-system-ve-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION 
"This package contains programs that tell what a machine permits a real-time
program to do, and how late its timers are.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ${sameRuntime})

# Where the libraries are that the dependencies are read from: the library itself is in no package yet, and those of
# another architecture are in the sysroot, together with what their packages say about them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
if(CMAKE_SYSROOT)
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
        ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE} ${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()

include(CPack)
