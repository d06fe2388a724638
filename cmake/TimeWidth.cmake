# How wide `time_t` is. On a 32-bit platform that is part of the binary interface, and has to be as in the platform's
# other libraries, or in the project that this is a part of: what the compiler does when it is told no more than is said
# there. For a platform of one's own, KEL_TIME_BITS says it.
include(CheckTypeSize)

set(KEL_TIME_BITS "" CACHE STRING "Width of time_t on a 32-bit platform, 32 or 64; empty: as the compiler has it")
get_directory_property(CMAKE_REQUIRED_DEFINITIONS COMPILE_DEFINITIONS)
list(FILTER CMAKE_REQUIRED_DEFINITIONS INCLUDE REGEX "^_(TIME|FILE_OFFSET)_BITS=")
list(TRANSFORM CMAKE_REQUIRED_DEFINITIONS PREPEND -D)
set(CMAKE_EXTRA_INCLUDE_FILES ctime)
if(NOT KEL_TIME_BITS STREQUAL "")
    set(CMAKE_REQUIRED_FLAGS "-U_TIME_BITS -D_TIME_BITS=${KEL_TIME_BITS} -D_FILE_OFFSET_BITS=64")
endif()
# Anew each time: the compiler and its flags may be others.
unset(HAVE_KEL_TIME${KEL_TIME_BITS} CACHE)
check_type_size(std::time_t KEL_TIME${KEL_TIME_BITS} BUILTIN_TYPES_ONLY LANGUAGE CXX)
unset(CMAKE_REQUIRED_DEFINITIONS)
unset(CMAKE_EXTRA_INCLUDE_FILES)
unset(CMAKE_REQUIRED_FLAGS)
set(timeBits unknown)
if(HAVE_KEL_TIME${KEL_TIME_BITS})
    math(EXPR timeBits "8 * ${KEL_TIME${KEL_TIME_BITS}}")
endif()
if(NOT KEL_TIME_BITS STREQUAL "" AND NOT timeBits EQUAL KEL_TIME_BITS)
    message(FATAL_ERROR "KEL_TIME_BITS is ${KEL_TIME_BITS}: this platform has no time_t of that width, or no headers.")
elseif(timeBits STREQUAL unknown)
    message(FATAL_ERROR "The width of time_t cannot be told: with ${CMAKE_CXX_COMPILER}, nothing compiles that includes "
        "<ctime>.")
endif()

# Undefined first: some compilers define it by themselves, and warn when it becomes something else.
set(timeFlags)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(timeFlags -U_TIME_BITS -D_TIME_BITS=${timeBits})
    if(timeBits EQUAL 64)
        list(APPEND timeFlags -D_FILE_OFFSET_BITS=64)
    endif()
endif()
