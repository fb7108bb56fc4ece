# 32-bit MIPS little-endian, o32 ABI (the device's), with Debian's cross
# compiler and the target's libraries installed through multiarch
# (libhiredis-dev:mipsel, libgtest-dev:mipsel, libstdc++6:mipsel). The test
# binaries run under qemu-user: CTest starts them through the emulator. The
# emulator finds the target's dynamic loader and libraries at their multiarch
# paths (/lib/ld.so.1, /usr/lib/mipsel-linux-gnu), so it needs no -L prefix.
#   cmake -S . -B build-mipsel \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mipsel-linux-gnu.cmake \
#     -DTQREDIS_DEVDB=<a native build>/tools/devdb/tqredis-devdb
set(TQREDIS_TARGET_TRIPLET mipsel-linux-gnu)
set(TQREDIS_TARGET_MULTIARCH mipsel-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/multiarch.cmake)

find_program(TQREDIS_QEMU qemu-mipsel)
if(NOT TQREDIS_QEMU)
  message(FATAL_ERROR "qemu-mipsel not found (Debian package qemu-user)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${TQREDIS_QEMU})
