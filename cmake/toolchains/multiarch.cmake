# Shared part of the toolchain files for Debian's cross compilers with the
# target's libraries installed through multiarch (/usr/lib/<multiarch>).
# Expects TQREDIS_TARGET_TRIPLET (the compilers' prefix) and
# TQREDIS_TARGET_MULTIARCH (the library folder's name).
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR ${TQREDIS_TARGET_TRIPLET})

set(CMAKE_C_COMPILER ${TQREDIS_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TQREDIS_TARGET_TRIPLET}-g++)

# The compilers search /usr/include last and link from /usr/lib/<multiarch>;
# telling CMake the folder makes find_package() and find_library() take the
# target's GTest and hiredis, never the build machine's.
set(CMAKE_LIBRARY_ARCHITECTURE ${TQREDIS_TARGET_MULTIARCH})

# pkg-config reads only the target's .pc files. The toolchain file is read
# again by every re-configuration, so the setting holds for each of them.
set(ENV{PKG_CONFIG_LIBDIR}
    "/usr/lib/${TQREDIS_TARGET_MULTIARCH}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
