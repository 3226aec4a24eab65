# Cross-build for 32-bit ARM (hard float) with Debian's arm-linux-gnueabihf toolchain. Target
# programs run under qemu-arm, so ctest can run the tests on the build machine.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(TAVRIN_ARM_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${TAVRIN_ARM_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TAVRIN_ARM_TRIPLE}-g++)
set(CMAKE_STRIP ${TAVRIN_ARM_TRIPLE}-strip CACHE FILEPATH "strip for the target")

set(CMAKE_FIND_ROOT_PATH /usr/${TAVRIN_ARM_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR
    /usr/bin/env QEMU_LD_PREFIX=/usr/${TAVRIN_ARM_TRIPLE} /usr/bin/qemu-arm)
