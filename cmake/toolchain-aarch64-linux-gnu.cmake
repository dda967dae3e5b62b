# Cross-compiles the host build for 64-bit Arm Linux with Debian's cross toolchain
# (crossbuild-essential-arm64) against the arm64 multiarch development packages, and runs the
# built programs (the tests, and GoogleTest's discovery of them) under qemu-user.
#   cmake -S . -B build/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64-linux-gnu.cmake -DRUVO_WITH_CUDA=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Multiarch: libraries and CMake package files are looked up under /usr/lib/aarch64-linux-gnu;
# headers in /usr/include are shared by every architecture.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
# Find modules that ask pkg-config (expat, for Poco XML) read the arm64 package files.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
# binfmt_misc may be missing (containers), so the emulator is named explicitly. Programs run with
# the multiarch arm64 loader and libraries (-L /), never the cross toolchain's own C library
# (/usr/aarch64-linux-gnu): that is another build of the C library than the multiarch one the
# other libraries pull in, and a loader from one with the C library of the other hangs in the
# first pthread_create.
find_program(RUVO_QEMU_AARCH64 qemu-aarch64 qemu-aarch64-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${RUVO_QEMU_AARCH64} -L /)
# Poco's arm64 CMake package files, unpacked by scripts/install-deps.sh.
list(APPEND CMAKE_PREFIX_PATH ${CMAKE_CURRENT_LIST_DIR}/../build/arm64-poco/usr)
