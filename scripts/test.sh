#!/usr/bin/env bash
# Installs what the tests need, builds everything and runs every test.
# Usage: scripts/test.sh [extra ctest arguments]
# Environment: NVR_BUILD (build folder, default build), NVR_CMAKE_ARGS (extra cmake arguments,
# e.g. -DNVR_SANITIZE=ON).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh test
build=${NVR_BUILD:-build}
# shellcheck disable=SC2086
cmake -S . -B "$build" ${NVR_CMAKE_ARGS:-}
cmake --build "$build" -j "$(nproc)"
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 900 "$@"
