# Cross build for 64-bit ARM (a Raspberry Pi 3/4/5 running Debian) with
# Debian's cross compiler and the arm64 libraries of multiarch, all installed
# by `scripts/install-deps arm64`.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# A few -dev packages cannot be installed beside their amd64 twins; their
# arm64 files are unpacked under this folder instead.
set(KZ_ARM64_EXTRA /opt/kz-arm64)

# Only the arm64 .pc files: one of the host's would hand the linker x86-64
# libraries.
set(ENV{PKG_CONFIG_LIBDIR}
    "${KZ_ARM64_EXTRA}/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Libraries and packages from the arm64 folders; programs (pkg-config,
# python3) from the host.
set(CMAKE_FIND_ROOT_PATH ${KZ_ARM64_EXTRA}/usr /usr/aarch64-linux-gnu /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The unpacked libraries' own dependencies are found there when linking.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${KZ_ARM64_EXTRA}/usr/lib/aarch64-linux-gnu")
