#!/usr/bin/env bash
# Installs what the benchmarks need, builds them in build-bench/ and runs each one, printing one
# table: every figure beside a baseline measured in the same run on this machine.
# Usage: scripts/bench.sh [--quick]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh bench
build=${NVR_BUILD:-build-bench}
programmi=(bench_indicizzazione bench_registrazione bench_archivio bench_riproduzione bench_vivo
          bench_linea_tempo bench_salute bench_inattivo)  # bench_inattivo uses bench_archivio's set
cmake -S . -B "$build" -DNVR_BENCH=ON -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${programmi[@]}" >/dev/null
# The same columns as bench/tabella.h.
printf "%-14s %-44s %12s %12s %9s %-8s %s\n" prova misura nvr base rapporto unita obiettivo
esito=0
for p in "${programmi[@]}"; do
  "$build/bench/$p" "$@" || { echo "$p: non riuscito (uscita $?)" >&2; esito=1; }
done
exit $esito
