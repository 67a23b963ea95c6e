# 32-bit ARM with hardware floating point, Debian's armhf.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TARGET_ARCHITECTURE armhf)
set(TARGET_TRIPLET arm-linux-gnueabihf)
set(TARGET_EMULATOR qemu-arm)
# One compiler builds everything, so it does not matter that other versions pass some arguments differently.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
