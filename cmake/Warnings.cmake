# What all of this project's own code is compiled with. Warnings are errors where CMAKE_COMPILE_WARNING_AS_ERROR is set,
# as in all presets.
add_library(kel_warnings INTERFACE)
target_compile_options(kel_warnings INTERFACE -Wall -Wextra -Wshadow -Wconversion -Wnon-virtual-dtor
    -Wno-psabi  # On ARM gcc would note, at each use of some templates, that it once passed their arguments differently.
)
