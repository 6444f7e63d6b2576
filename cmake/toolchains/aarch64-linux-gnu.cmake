# Cross build for 64-bit ARM Linux with Debian's cross toolchain
# (g++-aarch64-linux-gnu) and arm64 multiarch libraries
# (libopencv-core-dev:arm64, libopencv-imgproc-dev:arm64, android-liblog-dev:arm64,
# libgtest-dev:arm64). Test programs run under qemu-aarch64 (qemu-user).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Libraries and packages of the target only; programs of the host.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu/cmake)

# Debian's OpenCV package configuration does not co-install for two
# architectures; a small configuration of our own finds the arm64 libraries.
set(OpenCV_DIR ${CMAKE_CURRENT_LIST_DIR}/../opencv-multiarch CACHE PATH "" FORCE)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /)
