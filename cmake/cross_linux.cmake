# Shared part of the Linux cross toolchain files (toolchain-<arch>.cmake sets the triple, the Debian
# architecture and the qemu program before it includes this file).
#
# The target's libraries (alsa-lib, liblog, expat, zlib, jsoncpp, GoogleTest, the C and C++ runtimes and
# alsa-utils) are Debian's packages of that architecture, unpacked into a root of their own
# (TVOXSP_CROSS_ROOT) rather than installed beside the host's: multiarch installs need the same
# version of every shared package on both architectures, which a mirror lagging on one
# architecture's security updates cannot give.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${TVOXSP_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TVOXSP_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${TVOXSP_CROSS_TRIPLE})

set(TVOXSP_CROSS_ROOT /opt/tvoxsp-cross/${TVOXSP_CROSS_ARCH}/root
  CACHE PATH "The target architecture's packages, unpacked (scripts/cross_setup.sh)")
if(NOT EXISTS ${TVOXSP_CROSS_ROOT}/usr/include/alsa/asoundlib.h)
  message(FATAL_ERROR "no ${TVOXSP_CROSS_ARCH} root in ${TVOXSP_CROSS_ROOT}: "
    "run scripts/cross_setup.sh ${TVOXSP_CROSS_ARCH}")
endif()

# Libraries, headers and package files come from the root only; programs from the host.
set(CMAKE_FIND_ROOT_PATH ${TVOXSP_CROSS_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config (jsoncpp) reads the root's package files and prefixes their paths with the root.
set(ENV{PKG_CONFIG_LIBDIR}
  ${TVOXSP_CROSS_ROOT}/usr/lib/${TVOXSP_CROSS_TRIPLE}/pkgconfig:${TVOXSP_CROSS_ROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${TVOXSP_CROSS_ROOT})

# The linker follows the libraries' own dependencies (libasound.so.2, liblog's) inside the root.
set(TVOXSP_CROSS_LINK_DIRS
  ${TVOXSP_CROSS_ROOT}/lib/${TVOXSP_CROSS_TRIPLE}
  ${TVOXSP_CROSS_ROOT}/usr/lib/${TVOXSP_CROSS_TRIPLE}
  ${TVOXSP_CROSS_ROOT}/usr/lib/${TVOXSP_CROSS_TRIPLE}/android)
list(JOIN TVOXSP_CROSS_LINK_DIRS ":" TVOXSP_CROSS_RPATH_LINK)
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-Wl,-rpath-link,${TVOXSP_CROSS_RPATH_LINK}")
endforeach()

# Tests run under qemu with the root as its library prefix. The programs a test starts (the tool,
# tvoxsim, the root's amixer and aplay) reach qemu through binfmt_misc (scripts/cross_setup.sh
# registers it), which takes the prefix from QEMU_LD_PREFIX. The root's programs come first in
# PATH: a plugin of this build loads only into an ALSA of its architecture (amixer, aplay), and
# the simulator's preload only into a shell of its architecture (`tvoxsim run -- sh -c ...`).
find_program(TVOXSP_CROSS_QEMU_PATH ${TVOXSP_CROSS_QEMU} REQUIRED)
# The loader does not find liblog's folder of an installed run path (/usr/lib/<triple>/android)
# through qemu's prefix, so it is named in the root.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/env
  QEMU_LD_PREFIX=${TVOXSP_CROSS_ROOT}
  LD_LIBRARY_PATH=${TVOXSP_CROSS_ROOT}/usr/lib/${TVOXSP_CROSS_TRIPLE}/android
  PATH=${TVOXSP_CROSS_ROOT}/bin:${TVOXSP_CROSS_ROOT}/usr/bin:/usr/local/bin:/usr/bin:/bin
  ${TVOXSP_CROSS_QEMU_PATH})
