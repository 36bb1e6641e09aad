# Cross build for the device: 32-bit ARM, hard float, Debian's cross toolchain
# (packages g++-arm-linux-gnueabihf, binutils-arm-linux-gnueabihf).
# Use: cmake -S . -B build/arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(UPDATER_ARM_TRIPLE arm-linux-gnueabihf)
set(UPDATER_ARM_SYSROOT /usr/${UPDATER_ARM_TRIPLE})

set(CMAKE_C_COMPILER ${UPDATER_ARM_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${UPDATER_ARM_TRIPLE}-g++)
set(CMAKE_STRIP ${UPDATER_ARM_TRIPLE}-strip CACHE FILEPATH "")

# Libraries and headers come from the cross tree only; programs from the host.
set(CMAKE_FIND_ROOT_PATH ${UPDATER_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Tests and test discovery run the ARM programs under qemu-user; -L points the
# emulator at the cross tree's dynamic loader and libraries.
find_program(UPDATER_QEMU_ARM qemu-arm)
if(UPDATER_QEMU_ARM)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${UPDATER_QEMU_ARM} -L ${UPDATER_ARM_SYSROOT})
endif()

