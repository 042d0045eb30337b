# The camera: 32-bit ARM Linux, hard float, Debian's cross compiler. The libraries that ours stands on
# come from KEST_SYSROOT, which scripts/sysroot makes below the build folder.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT KEST_SYSROOT)
    set(KEST_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/arm-sysroot)
endif()
get_filename_component(KEST_SYSROOT ${KEST_SYSROOT} ABSOLUTE)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KEST_SYSROOT)
set(CMAKE_SYSROOT ${KEST_SYSROOT})
set(CMAKE_FIND_ROOT_PATH ${KEST_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Tests run here as on the camera, as far as the emulator goes. It takes files below its root for the
# machine's own of the same name: there must be nothing but the dynamic linker and its libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${KEST_SYSROOT}/emulated)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${KEST_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${KEST_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${KEST_SYSROOT}/usr/share/pkgconfig)
