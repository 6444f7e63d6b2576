#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need.
# Runs as root (or through sudo); does nothing when everything is there.
set -euo pipefail

packages=(
  cmake make g++ pkg-config binutils
  libopencv-dev            # OpenCV core, imgproc (library), imgcodecs (tools, tests)
  android-liblog-dev       # __android_log_print on the Linux host
  libgtest-dev googletest  # GoogleTest with CTest
  libbenchmark-dev         # Google Benchmark
  libcpp-httplib-dev nlohmann-json3-dev  # segdemo's HTTP server and JSON
)
packages+=("$@")

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
