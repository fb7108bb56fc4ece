# 32-bit x86 (i386 ABI) with Debian's cross compiler and the target's
# libraries installed through multiarch (libhiredis-dev:i386,
# libgtest-dev:i386, libstdc++6:i386). The test binaries run natively.
#   cmake -S . -B build-i386 \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/i686-linux-gnu.cmake \
#     -DTQREDIS_DEVDB=<a native build>/tools/devdb/tqredis-devdb
set(TQREDIS_TARGET_TRIPLET i686-linux-gnu)
set(TQREDIS_TARGET_MULTIARCH i386-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/multiarch.cmake)
