#!/usr/bin/env bash
# Installs what the tests need, builds everything and runs every test.
# Usage: scripts/test.sh [extra ctest arguments]
# Environment: NVR_BUILD (build folder, default build), NVR_CMAKE_ARGS (extra cmake arguments,
# e.g. -DNVR_SANITIZE=ON).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh test
# playwright-core for the browser tests, at the version pinned in browser/package-lock.json.
if ! cmp -s browser/package-lock.json browser/node_modules/.installato 2>/dev/null; then
  npm ci --prefix browser --no-audit --no-fund
  cp browser/package-lock.json browser/node_modules/.installato
fi
build=${NVR_BUILD:-build}
# shellcheck disable=SC2086
cmake -S . -B "$build" ${NVR_CMAKE_ARGS:-}
cmake --build "$build" -j "$(nproc)"
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 900 "$@"
