#!/usr/bin/env bash
# Installs what is missing, builds Evenloud and starts the desktop app.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j"$(nproc)"
exec build/release/app/evenloud "$@"
