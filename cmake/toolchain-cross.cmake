# What the toolchain files of the boards' architectures share: they set CMAKE_SYSTEM_PROCESSOR and TESSARO_TRIPLET (the
# name of the compiler and of the library folder), TESSARO_DEBIAN_ARCH and TESSARO_USER_EMULATOR, and include this.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_LIBRARY_ARCHITECTURE ${TESSARO_TRIPLET})

# scripts/cross-sysroot makes the folder, and puts it elsewhere when TESSARO_CACHE is set.
if(DEFINED ENV{TESSARO_CACHE})
  set(CMAKE_SYSROOT $ENV{TESSARO_CACHE}/sysroot-${TESSARO_DEBIAN_ARCH})
else()
  set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../.cache/sysroot-${TESSARO_DEBIAN_ARCH})
endif()
get_filename_component(CMAKE_SYSROOT ${CMAKE_SYSROOT} REALPATH)
if(NOT EXISTS ${CMAKE_SYSROOT}/.complete)
  message(FATAL_ERROR "There are no ${TESSARO_DEBIAN_ARCH} libraries in ${CMAKE_SYSROOT}: "
                      "run scripts/cross-sysroot ${TESSARO_DEBIAN_ARCH}")
endif()

set(CMAKE_C_COMPILER ${TESSARO_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TESSARO_TRIPLET}-g++)

set(CMAKE_FIND_ROOT_PATH ${CMAKE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Unit tests run here, the processor emulated and the kernel this machine's.
set(CMAKE_CROSSCOMPILING_EMULATOR "${TESSARO_USER_EMULATOR};-L;${CMAKE_SYSROOT}")
