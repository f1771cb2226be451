# Cross-compiles for 64-bit Arm Linux with Debian's cross toolchain (g++-aarch64-linux-gnu) against
# the arm64 development packages of the dependencies (multiarch). Programs built here run on this
# machine under qemu-user, which ctest uses as the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;/usr/aarch64-linux-gnu)
