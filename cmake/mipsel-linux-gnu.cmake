# Toolchain for the router's processor (32-bit little-endian MIPS) with Debian's cross compiler.
# Programs run in user-mode emulation. scripts/target fills the sysroot with what the compiler does
# not bring.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)

cmake_path(SET TARGET_SYSROOT NORMALIZE "${CMAKE_CURRENT_LIST_DIR}/../build/target/sysroot")
set(CMAKE_FIND_ROOT_PATH ${TARGET_SYSROOT} /usr/mipsel-linux-gnu)
set(CMAKE_LIBRARY_ARCHITECTURE mipsel-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH) # header-only packages are this machine's

# The target's C library has a 64-bit time_t, as musl has it; this asks the same of the other one.
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")

set(CMAKE_CROSSCOMPILING_EMULATOR
    qemu-mipsel-static -L /usr/mipsel-linux-gnu
    -E LD_LIBRARY_PATH=${TARGET_SYSROOT}/usr/lib/mipsel-linux-gnu)
