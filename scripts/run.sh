#!/usr/bin/env bash
# Installs what the recorder needs and builds it.
# The standalone recorder program is not there yet: for now this builds the library and its
# tests' dependencies and says so.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh run
cmake -S . -B build -DNVR_TESTS=OFF
cmake --build build -j "$(nproc)"
echo "libnvr compilata in build/. Il programma nvr autonomo non esiste ancora: per ora c'e' solo la libreria."
