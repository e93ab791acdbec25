#!/usr/bin/env bash
# Builds the release preset, runs the benchmark binaries and prints every
# figure beside its baseline measured in the same run, as a ratio, against
# its goal.
#
#   scripts/bench.sh                  build, then run every benchmark binary
#   scripts/bench.sh --no-build       run what build/release holds
#   KIV_BENCH_REPETITIONS=3 scripts/bench.sh
#   KIV_BENCH_ARGS=--benchmark_min_time=0.1 scripts/bench.sh --no-build
#   KIV_BENCH_BIN_DIR=build/bench/bench KIV_BENCH_OUT_DIR=/tmp/r scripts/bench.sh --no-build
#
# Figures are medians over the repetitions of real time, and PASS/MISS is
# judged on them. Each pair (isFavorite against its baselines, load, persist,
# the JSON rebuild, getItemInfo) runs in turns with its baseline inside one
# benchmark (the machine's fast and slow phases then move both sides alike),
# and its ratio is the median of the repetitions' own ratios. The JSON
# results are kept in build/release/bench-results/.
# The figures and their goals are printed by bench/report.py (the goals are
# one table there). Last, bench/server/server_bench.py loads a real
# favoritesd with wrk.
set -euo pipefail
cd "$(dirname "$0")/.."

build=1
for arg in "$@"; do
  case "$arg" in
    --no-build) build=0 ;;
    *) echo "usage: scripts/bench.sh [--no-build]" >&2; exit 2 ;;
  esac
done

if [ "$build" = 1 ]; then
  bash scripts/build.sh release
fi

bin="${KIV_BENCH_BIN_DIR:-build/release/bench}"
out="${KIV_BENCH_OUT_DIR:-build/release/bench-results}"
reps="${KIV_BENCH_REPETITIONS:-5}"
mkdir -p "$out"

run() {
  local name="$1"; shift
  if [ ! -x "$bin/$name" ]; then
    echo "skipping $name: $bin/$name was not built" >&2
    return 0
  fi
  local cmd=("$bin/$name" --benchmark_format=json "--benchmark_repetitions=$reps"
             --benchmark_report_aggregates_only=true --benchmark_enable_random_interleaving=true
             ${KIV_BENCH_ARGS:-} "$@")
  echo "+ ${cmd[*]} > $out/$name.json" >&2
  "${cmd[@]}" > "$out/$name.json"
}

run favorites_bench
run catalog_bench
# The PostgreSQL catalog beside the SQLite one, on a throwaway server with
# PostgreSQL's default durability.
bash scripts/pgtest.sh start build/release/pgbench --durable >/dev/null
trap 'bash scripts/pgtest.sh stop build/release/pgbench' EXIT
KIV_BENCH_PG="$(cat build/release/pgbench/conninfo)" run backends_bench

# Every figure against its goal (the goals are one table in bench/report.py).
python3 bench/report.py "$out"

# The server under load from a second process (wrk), beside /healthz and a raw
# durable SQLite write measured in the same run.
if [ -x build/release/apps/favoritesd/favoritesd ] && [ -x build/release/bench/server_bench_setup ]; then
  /usr/bin/python3 bench/server/server_bench.py build/release
else
  echo "server benchmark: favoritesd or server_bench_setup is not built" >&2
  exit 1
fi
