# 64-bit ARM (Debian arm64, the phone's own ABI): Debian's cross compiler, the target's libraries
# from the root that scripts/cross_setup.sh unpacks, tests under qemu user-mode emulation.
#   cmake -S . -B build-arm64 --toolchain cmake/toolchain-arm64.cmake
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TVOXSP_CROSS_TRIPLE aarch64-linux-gnu)
set(TVOXSP_CROSS_ARCH arm64)
set(TVOXSP_CROSS_QEMU qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross_linux.cmake)
