# The board: a 32-bit ARM processor with hardware floating point.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(TESSARO_TRIPLET arm-linux-gnueabihf)
set(TESSARO_DEBIAN_ARCH armhf)
set(TESSARO_USER_EMULATOR qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-cross.cmake)
