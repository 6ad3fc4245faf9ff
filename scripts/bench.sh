#!/usr/bin/env bash
# Installs what the benchmarks need, builds them in build-bench/ and runs each one, printing its
# figures beside a baseline measured in the same run.
# Usage: scripts/bench.sh [--quick]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh test
build=${NVR_BUILD:-build-bench}
cmake -S . -B "$build" -DNVR_BENCH=ON -DCMAKE_BUILD_TYPE=Release
cmake --build "$build" -j "$(nproc)" --target bench_indicizzazione
"$build/bench/bench_indicizzazione" "$@"
