# Debian's cross compiler with a folder made by scripts/sysroot. The other files in this folder include this file, and set
# TARGET_ARCHITECTURE (Debian's name), TARGET_TRIPLET and TARGET_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TARGET_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${TARGET_TRIPLET})
get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot/${TARGET_ARCHITECTURE} ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT}/complete)
    message(FATAL_ERROR "There is no ${CMAKE_SYSROOT}: run scripts/sysroot ${TARGET_ARCHITECTURE}")
endif()

# Programs come from this machine, everything else from the target.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_PATH} "") # would be searched first
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${TARGET_TRIPLET}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

# Tests run under emulation.
set(CMAKE_CROSSCOMPILING_EMULATOR ${TARGET_EMULATOR} -L ${CMAKE_SYSROOT})
