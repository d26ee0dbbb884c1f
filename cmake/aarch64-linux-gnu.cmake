# Cross build for 64-bit ARM Linux (the phone's processor) with Debian's
# g++-aarch64-linux-gnu, against the arm64 libraries of a multiarch system
# (dpkg --add-architecture arm64; zlib1g-dev:arm64, libgtest-dev:arm64, and
# libc6:arm64 and libstdc++6:arm64 to run the programs; scripts/install-deps.sh
# cross installs them).
#
# Programs built here run under qemu's user-mode emulation. Its library
# prefix is the system root: the arm64 libc and loader of the multiarch
# system are the ones the libraries were built against. The cross compiler's
# own folder (/usr/aarch64-linux-gnu) holds a second libc, and with it as the
# prefix every program that starts a thread hangs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(OVTA_CROSS_TRIPLE aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /)
