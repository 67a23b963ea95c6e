# 32-bit ARM with hardware floating point, Debian's armhf.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TARGET_ARCHITECTURE armhf)
set(TARGET_TRIPLET arm-linux-gnueabihf)
set(TARGET_EMULATOR qemu-arm)
# One compiler builds all of it: that another version of it would pass some arguments elsewhere tells nothing.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
