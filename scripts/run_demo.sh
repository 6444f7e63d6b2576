#!/usr/bin/env bash
# Installs what is missing, builds segdemo and starts it on the default photo
# (or on the options given, e.g. --image PHOTO --port N). Open the printed
# address in a browser; Ctrl+C stops the server.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install_deps.sh
bash scripts/fetch_sample_photo.sh >/dev/null
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target segdemo
exec build/tools/segdemo "$@"
