# What the two cross toolchain files share: Debian's cross compilers for
# OVTA_CROSS_TRIPLE. With the library architecture set, CMake finds
# libraries and package files in that triple's multiarch folders
# (/usr/lib/<triple>), never in the build machine's.
set(CMAKE_C_COMPILER ${OVTA_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${OVTA_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${OVTA_CROSS_TRIPLE})
