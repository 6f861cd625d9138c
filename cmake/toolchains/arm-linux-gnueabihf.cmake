# Cross build for the card: 32-bit ARM, hard-float EABI, Debian's cross toolchain
# (g++-arm-linux-gnueabihf). Programs built here run under qemu-arm.
#
# Two roots are searched for target files:
#   /usr/arm-linux-gnueabihf   the cross toolchain's C and C++ runtime
#   TARSEL_ARMHF_SYSROOT       Debian's armhf libmodbus unpacked by
#                              scripts/armhf-sysroot.sh (default: <build>/sysroot)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(TARSEL_ARMHF_TRIPLE arm-linux-gnueabihf)
set(TARSEL_ARMHF_TOOLCHAIN_ROOT /usr/${TARSEL_ARMHF_TRIPLE})

set(CMAKE_C_COMPILER ${TARSEL_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TARSEL_ARMHF_TRIPLE}-g++)
# GCC notes on every std::vector iterator that their passing changed in GCC 7.1;
# everything here is built by one compiler, so the notes say nothing.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

if(NOT TARSEL_ARMHF_SYSROOT)
    set(TARSEL_ARMHF_SYSROOT ${CMAKE_BINARY_DIR}/sysroot)
endif()
set(TARSEL_ARMHF_SYSROOT ${TARSEL_ARMHF_SYSROOT} CACHE PATH
    "Directory with the unpacked armhf packages (scripts/armhf-sysroot.sh)")
# try_compile projects read this file again in a directory of their own.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TARSEL_ARMHF_SYSROOT)

if(NOT EXISTS ${TARSEL_ARMHF_SYSROOT}/usr/lib/${TARSEL_ARMHF_TRIPLE}/pkgconfig/libmodbus.pc)
    message(FATAL_ERROR "No armhf sysroot in ${TARSEL_ARMHF_SYSROOT}: "
                        "run scripts/armhf-sysroot.sh ${TARSEL_ARMHF_SYSROOT}")
endif()

set(CMAKE_FIND_ROOT_PATH ${TARSEL_ARMHF_TOOLCHAIN_ROOT} ${TARSEL_ARMHF_SYSROOT})
set(CMAKE_LIBRARY_ARCHITECTURE ${TARSEL_ARMHF_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config answers for the target: only the sysroot's .pc files, with their
# paths moved into the sysroot.
set(ENV{PKG_CONFIG_LIBDIR}
    "${TARSEL_ARMHF_SYSROOT}/usr/lib/${TARSEL_ARMHF_TRIPLE}/pkgconfig:${TARSEL_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TARSEL_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_PATH} "")

# Tests and the package's test programs run under user-mode emulation: the
# dynamic loader and libc come from the cross toolchain (-L), libmodbus from
# the sysroot.
find_program(TARSEL_QEMU_ARM qemu-arm)
if(TARSEL_QEMU_ARM)
    set(CMAKE_CROSSCOMPILING_EMULATOR
        ${TARSEL_QEMU_ARM} -L ${TARSEL_ARMHF_TOOLCHAIN_ROOT}
        -E LD_LIBRARY_PATH=${TARSEL_ARMHF_SYSROOT}/usr/lib/${TARSEL_ARMHF_TRIPLE})
else()
    message(WARNING "qemu-arm not found (Debian package qemu-user): the armhf tests cannot run")
endif()
