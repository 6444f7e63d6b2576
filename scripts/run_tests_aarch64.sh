#!/usr/bin/env bash
# Cross-builds the library and every test for 64-bit ARM Linux and runs the
# whole suite under qemu-aarch64, then checks the built library: file name and
# SONAME, architecture, and what it links against.
set -euo pipefail
cd "$(dirname "$0")/.."

if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo dpkg --add-architecture arm64
  $sudo apt-get update -q
fi
# The arm64 imgcodecs packages do not co-install with the host's, so the
# cross-built tests read the photo set as PNM files exported by the host.
bash scripts/install_deps.sh g++-aarch64-linux-gnu qemu-user \
  libopencv-core-dev:arm64 libopencv-imgproc-dev:arm64 android-liblog-dev:arm64 libgtest-dev:arm64
jobs=$(nproc)

photos=""
if [ -d ../shared/data/grabcut/images ]; then
  cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build -j"$jobs" --target export_photo_set
  photos="$(pwd)/build-aarch64-photos"
  build/tests/export_photo_set "$photos"
fi

cmake -S . -B build-aarch64 -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake \
  -DSEGCORE_GRABCUT_DIR="${photos:-/nonexistent}"
cmake --build build-aarch64 -j"$jobs"
lib=build-aarch64/libSegmentationCore.camera.norvane.so

echo "== checks of $lib"
readelf -h "$lib" | grep -q "Machine:.*AArch64" || { echo "not an AArch64 library"; exit 1; }
readelf -d "$lib" | grep -q "Library soname: \[libSegmentationCore.camera.norvane.so\]" ||
  { echo "wrong SONAME"; exit 1; }
# Everything undefined must come from the C and C++ runtimes, OpenCV or liblog.
unexpected=$(readelf -d "$lib" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' |
  grep -v -E '^(libc|libm|libstdc\+\+|libgcc_s|libpthread|ld-linux-aarch64|liblog|libopencv_(core|imgproc))\.so' || true)
[ -z "$unexpected" ] || { echo "unexpected libraries: $unexpected"; exit 1; }
echo "AArch64, SONAME and linked libraries as expected"

echo "== tests under qemu-aarch64"
(cd build-aarch64 && ctest --output-on-failure -j"$jobs")
