# 32-bit ARM (Debian armhf, the ABI of a 32-bit audio HAL): Debian's cross compiler, the target's
# libraries from the root that scripts/cross_setup.sh unpacks, tests under qemu user-mode emulation.
#   cmake -S . -B build-armhf --toolchain cmake/toolchain-armhf.cmake
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TVOXSP_CROSS_TRIPLE arm-linux-gnueabihf)
set(TVOXSP_CROSS_ARCH armhf)
set(TVOXSP_CROSS_QEMU qemu-arm-static)
# GCC notes that GCC 7.1 changed how some aggregates are passed on ARM; everything here is built
# by one compiler, so the note says nothing about this build.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
include(${CMAKE_CURRENT_LIST_DIR}/cross_linux.cmake)
