# Cross build for 32-bit ARM Linux (armhf) with Debian's
# g++-arm-linux-gnueabihf. It keeps the code honest about 32-bit longs,
# pointers and file offsets.
#
# The armhf libraries are not installed: with armhf added as a dpkg
# architecture, apt on a machine stalls whenever the mirror's armhf index
# is out of step. scripts/install-deps.sh unpacks zlib and GoogleTest for
# armhf into OVTA_ARMHF_SYSROOT instead, and both are linked statically.
# The C and C++ runtime are the cross compiler's own, so the programs run
# under qemu-arm with its folder as the library prefix: every library the
# loader opens comes from that one folder.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(OVTA_CROSS_TRIPLE arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)

set(OVTA_ARMHF_SYSROOT "" CACHE PATH "Folder with zlib and GoogleTest for armhf (scripts/install-deps.sh cross)")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES OVTA_ARMHF_SYSROOT)
if(NOT EXISTS "${OVTA_ARMHF_SYSROOT}/usr/lib/${OVTA_CROSS_TRIPLE}/libz.a")
  message(FATAL_ERROR "No armhf zlib in OVTA_ARMHF_SYSROOT (${OVTA_ARMHF_SYSROOT}): run scripts/install-deps.sh cross")
endif()
list(APPEND CMAKE_FIND_ROOT_PATH ${OVTA_ARMHF_SYSROOT})
set(ZLIB_USE_STATIC_LIBS ON)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/${OVTA_CROSS_TRIPLE})
