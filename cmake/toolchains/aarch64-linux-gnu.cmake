# Cross build for 64-bit Arm gateways with Debian's cross compiler
# (crossbuild-essential-arm64) and the arm64 development packages installed
# beside the host's through multiarch (dpkg --add-architecture arm64).
#
# Multiarch keeps the arm64 libraries in /usr/lib/aarch64-linux-gnu and
# shares /usr/include, so there is no sysroot: the compiler's own search
# paths already find the arm64 libraries and never the host's.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# CMake takes objcopy, readelf, nm and strip with the compiler's prefix.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Programs run on the build host (scdoc, cmake -P scripts), so they are the
# host's; packages come from the arm64 paths that find_package searches
# through CMAKE_LIBRARY_ARCHITECTURE.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config reads only the arm64 .pc files and the architecture-independent
# ones, never the host's, whose libraries the arm64 linker cannot use.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
