#!/usr/bin/env bash
# Installs the built library into a scratch prefix, builds the caller's
# project in consumer/ against it with find_package(SegmentationCore), and
# runs it, all without LD_LIBRARY_PATH: the installed library must find its
# own dependencies (liblog in Debian's private folder) by itself.
#
#   run_package_test.sh BUILD_DIR WORK_DIR CXX_COMPILER GENERATOR CONFIG
set -euo pipefail
build=$1 work=$2 cxx=$3 generator=$4 config=$5
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
unset LD_LIBRARY_PATH

rm -rf "$work"
mkdir -p "$work"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" --config "$config" > "$work/install.log" ||
  { cat "$work/install.log"; exit 1; }

# Layout: one umbrella header, every subsystem folder under SegmentationCore/.
[ -f "$prefix/include/SegmentationCore/SegmentationCore.h" ] ||
  { echo "missing include/SegmentationCore/SegmentationCore.h"; exit 1; }
stray=$(find "$prefix/include" -mindepth 1 -maxdepth 1 ! -name SegmentationCore)
[ -z "$stray" ] || { echo "installed outside include/SegmentationCore: $stray"; exit 1; }
lib=$(find "$prefix" -name 'libSegmentationCore.camera.norvane.so' | head -n 1)
echo "installed $lib; $(readelf -d "$lib" | grep -E 'R(UN)?PATH' || echo 'no RUNPATH')"

cmake -S "$here/consumer" -B "$work/build" -G "$generator" -DCMAKE_BUILD_TYPE="$config" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
grep -qF "SegmentationCore_DIR:PATH=$prefix/" "$work/build/CMakeCache.txt" ||
  { echo "the consumer found a package outside $prefix"; exit 1; }
cmake --build "$work/build" --config "$config"
app=$(find "$work/build" -name app -type f -perm -u+x | head -n 1)
"$app" 2> "$work/app.log" || { cat "$work/app.log"; exit 1; }
