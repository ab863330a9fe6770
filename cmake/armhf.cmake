# Cross build for the appliance's processor: 32-bit ARM, hard float.
# The libraries live in a sysroot that scripts/armhf-sysroot.sh unpacks under build/armhf-sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(TAVRIX_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot" CACHE PATH "Unpacked armhf libraries")
get_filename_component(TAVRIX_SYSROOT "${TAVRIX_SYSROOT}" ABSOLUTE)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TAVRIX_SYSROOT)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi") # notes on how compilers before GCC 7.1 passed values: none of them takes part
set(CMAKE_SYSROOT "${TAVRIX_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm;-L;${TAVRIX_SYSROOT}")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TAVRIX_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${TAVRIX_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${TAVRIX_SYSROOT}/usr/share/pkgconfig")
