#!/usr/bin/env bash
# Installs what the recorder needs, builds the standalone program nvr and runs it from the
# caller's folder with the arguments given (for instance: bash scripts/run.sh --demo).
# The build folder is ${NVR_BUILD:-build-run} in the repository; an existing one is only
# brought up to date, so a second run starts at once.
set -euo pipefail
chiamante=$PWD
sorgenti=$(cd "$(dirname "$0")/.." && pwd)
bash "$sorgenti/scripts/deps.sh" run >&2
build=${NVR_BUILD:-build-run}
case $build in /*) ;; *) build=$sorgenti/$build ;; esac
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$sorgenti" -B "$build" -DNVR_TESTS=OFF >&2
fi
cmake --build "$build" -j "$(nproc)" --target nvr_autonomo >&2
cd "$chiamante"
exec "$build/autonomo/nvr" "$@"
