# A board with a 64-bit ARM processor.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TESSARO_TRIPLET aarch64-linux-gnu)
set(TESSARO_DEBIAN_ARCH arm64)
set(TESSARO_USER_EMULATOR qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-cross.cmake)
