# 64-bit ARM, Debian's arm64.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TARGET_ARCHITECTURE arm64)
set(TARGET_TRIPLET aarch64-linux-gnu)
set(TARGET_EMULATOR qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
