#!/usr/bin/env bash
# Puts the default photo (coffee.png, public domain, shipped by Debian's
# python3-skimage) into .cache/sample-data without installing that package or
# its dependencies: the .deb is downloaded and unpacked only.
# Prints the photo's path.
set -euo pipefail
cd "$(dirname "$0")/.."
dest=.cache/sample-data
photo=$dest/coffee.png
if [ ! -f "$photo" ]; then
  mkdir -p "$dest/deb"
  if ! ls "$dest"/deb/python3-skimage_*.deb >/dev/null 2>&1; then
    (cd "$dest/deb" && apt-get download python3-skimage >/dev/null 2>&1) || {
      apt-get update -q >/dev/null && (cd "$dest/deb" && apt-get download python3-skimage >/dev/null)
    }
  fi
  dpkg-deb -x "$dest"/deb/python3-skimage_*.deb "$dest/unpacked"
  cp "$(find "$dest/unpacked" -name coffee.png | head -n 1)" "$photo"
  rm -rf "$dest/unpacked"
fi
echo "$photo"
