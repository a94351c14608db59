# Cross build for AArch64 Linux with Debian's cross compiler and the arm64 (multiarch) -dev
# packages. The test programs run through qemu-user (no binfmt needed).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Multiarch: the arm64 libraries live beside the host's under /usr, in their own lib directory.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# pkg-config must see only the arm64 .pc files.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# The programs run on the arm64 multiarch run time (/lib/ld-linux-aarch64.so.1 and
# /lib/aarch64-linux-gnu), with no -L prefix: the cross toolchain's own copy of the C library
# under /usr/aarch64-linux-gnu is another build of glibc, and a loader of one build with the C
# library of the other corrupts the loader's shared state (pthread_create spins for ever).
find_program(SABLE_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${SABLE_QEMU_AARCH64})
