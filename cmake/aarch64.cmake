# Builds for Linux on aarch64 with Debian's cross compiler, g++-aarch64-linux-gnu. With an
# emulator, tests run as well: scripts/cross.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# A library of this machine's own processor is none for the other.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test programs start through it.
find_program(NQ_EMULATOR NAMES qemu-aarch64-static qemu-aarch64)
if(NQ_EMULATOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${NQ_EMULATOR} -L ${CMAKE_FIND_ROOT_PATH})
endif()
