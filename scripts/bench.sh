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
# Last, bench/server/server_bench.py loads a real favoritesd with wrk.
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

python3 - "$out" <<'PY'
import json, os, sys

out = sys.argv[1]

def load(name):
    path = os.path.join(out, name + ".json")
    if not os.path.exists(path):
        return None, {}
    with open(path) as f:
        try:
            data = json.load(f)
        except ValueError:
            # A filter that matched nothing in this binary leaves no JSON.
            return None, {}
    runs = {}
    for b in data["benchmarks"]:
        if b.get("run_type") == "aggregate":
            runs.setdefault(b["run_name"], {})[b["aggregate_name"]] = b
        else:
            # A single repetition reports no aggregates: take the run itself.
            runs.setdefault(b["run_name"], {}).setdefault("median", b)
    return data.get("context", {}), runs

SCALE = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}

def ns(runs, name, key="real_time"):
    b = runs[name]["median"]
    return b[key] * SCALE[b["time_unit"]]

def cv(runs, name):
    b = runs[name].get("cv")
    return b["real_time"] if b else float("nan")

def fmt_time(v):
    for unit, f in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if v >= f:
            return "%.3g %s" % (v / f, unit)
    return "%.3g ns" % v

rows = []
notes = []
missing = []

def row(what, value, baseline, ratio, goal, ok):
    rows.append((what, value, baseline, "%.2f" % ratio, goal, "PASS" if ok else "MISS"))

def get(runs, name):
    if name not in runs:
        missing.append(name)
        return None
    return runs[name]

context, fav = load("favorites_bench")
if fav:
    # isFavorite passes timed in turns with their baselines: the counters
    # give one look-up's time, the ratio is the median of the repetitions'.
    for n in (1000, 10000):
        name = "BM_IsFavoriteVsStdMap/%d/manual_time" % n
        if get(fav, name):
            b = fav[name]["median"]
            row("isFavorite, %d favorites vs std::map look-up (in turns)" % n, fmt_time(b["ns"]),
                fmt_time(b["baseline_ns"]), b["ratio"], "<= 1.2", b["ratio"] <= 1.2)
    for n in (1000, 10000):
        name = "BM_IsFavoriteVsSqlite/%d/manual_time" % n
        if get(fav, name):
            b = fav[name]["median"]
            r = 1.0 / b["ratio"]
            row("isFavorite, %d favorites: SQLite row look-up / isFavorite (in turns)" % n, fmt_time(b["ns"]),
                fmt_time(b["baseline_ns"]), r, ">= 20 (faster)", r >= 20)
    for n in (1000, 10000):
        name = "BM_OrderedIndexFloorVsSqlite/%d/manual_time" % n
        if get(fav, name):
            b = fav[name]["median"]
            notes.append("the bound for an index of 17 ordered-map bins, %d favorites (unlocked, hash-first keys, "
                         "no goal): SQLite %s / %s = %.1f" % (n, fmt_time(b["baseline_ns"]), fmt_time(b["ns"]),
                                                              1.0 / b["ratio"]))
    t1, t2 = "BM_IsFavoriteThreads/real_time/threads:1", "BM_IsFavoriteThreads/real_time/threads:2"
    if get(fav, t1) and get(fav, t2):
        i1 = fav[t1]["median"]["items_per_second"]
        i2 = fav[t2]["median"]["items_per_second"]
        row("isFavorite throughput, 2 threads / 1 thread", "%.3g/s" % i2, "%.3g/s" % i1, i2 / i1, ">= 1.3",
            i2 / i1 >= 1.3)
    m1, m2 = "BM_IsFavoriteStdMapThreads/real_time/threads:1", "BM_IsFavoriteStdMapThreads/real_time/threads:2"
    if m1 in fav and m2 in fav:
        j1 = fav[m1]["median"]["items_per_second"]
        j2 = fav[m2]["median"]["items_per_second"]
        notes.append("two-thread scaling this machine allowed in the same run (unlocked std::map, no goal): "
                     "%.3g/s / %.3g/s = %.2f" % (j2, j1, j2 / j1))
    # Pairs timed in turns: the ratio is the median of the repetitions' ratios.
    def paired(name, what, goal, ok):
        if get(fav, name):
            r = fav[name]["median"]["ratio"]
            row(what, fmt_time(ns(fav, name)), fmt_time(fav[name]["median"]["baseline_ms"] * 1e6), r, goal, ok(r))
    for n in (1000, 10000):
        paired("BM_LoadVsBaseline/%d/manual_time" % n, "load %d favorites vs parse+validate+look-ups" % n,
               "<= 1.5", lambda r: r <= 1.5)
    for n in (1000, 10000):
        paired("BM_PersistVsBaseline/%d/manual_time" % n, "persist %d favorites vs build+serialise+write" % n,
               "<= 1.5", lambda r: r <= 1.5)
    paired("BM_LoadFlatVsSpread/manual_time", "load 10000 in one category vs spread over categories of 10",
           "<= 3", lambda r: r <= 3)
    paired("BM_UpdateAllJsonVsDirect/manual_time", "updateAll from JSON, 10000 favorites (no save) vs direct build",
           "<= 1.5", lambda r: r <= 1.5)
    m = "BM_MemoryPerFavorite/iterations:1"
    if get(fav, m):
        v = fav[m]["median"]["bytes_per_favorite"]
        row("heap per favorite (tree + index, 64-char paths)", "%.0f B" % v, "600 B", v / 600.0, "<= 600 B",
            v <= 600)

cat_context, cat = load("catalog_bench")
if cat:
    name = next((n for n in sorted(cat) if n.split("/")[0] == "BM_CatalogGetItemInfoVsRaw"), None)
    if name is None:
        missing.append("BM_CatalogGetItemInfoVsRaw")
    else:
        b = cat[name]["median"]
        r = 1.0 / b["ratio"]
        row("getItemInfo throughput vs raw prepared look-up (100,000 objects, in turns)", fmt_time(b["ns"]),
            fmt_time(b["baseline_ns"]), r, ">= 0.7", r >= 0.7)

be_context, be = load("backends_bench")
backend_lines = []
if be:
    name = "BM_LoadPostgresVsSqlite/min_time:2.000/manual_time"
    if get(be, name):
        b = be[name]["median"]
        row("load 10000 favorites: PostgreSQL catalog vs SQLite catalog (in turns)", fmt_time(ns(be, name)),
            fmt_time(b["baseline_ms"] * 1e6), b["ratio"], "<= 2", b["ratio"] <= 2)
    for n, label in ((0, "SQLite"), (1, "PostgreSQL")):
        g, p = "BM_GetItemInfo/%d" % n, "BM_Persist/%d" % n
        if get(be, g) and get(be, p):
            backend_lines.append("  %-10s getItemInfo %s (%.3g/s), persist of 10000 favorites %s" % (
                label, fmt_time(ns(be, g)), be[g]["median"]["items_per_second"], fmt_time(ns(be, p) / 2)))

headers = ("figure", "value", "baseline", "ratio", "goal", "result")
widths = [max(len(str(r[i])) for r in rows + [headers]) for i in range(len(headers))]
line = lambda r: "  ".join(str(c).ljust(w) for c, w in zip(r, widths))
print()
if context:
    print("host: %s CPUs at %s MHz, load average %s; medians of %s repetitions (real time)" % (
        context.get("num_cpus"), context.get("mhz_per_cpu"), " ".join("%.1f" % x for x in context.get("load_avg", [])),
        next(iter(fav.values()))["median"].get("repetitions", "?") if fav else "?"))
print(line(headers))
print(line(["-" * w for w in widths]))
for r in rows:
    print(line(r))

for n in notes:
    print(n)

if fav:
    print()
    print("parts of a load (each measured on its own):")
    for n in (1000, 10000):
        parts = ["BM_LoadPartParse/%d" % n, "BM_LoadPartValidate/%d" % n, "BM_LoadPartLookups/%d" % n]
        pair = "BM_LoadVsBaseline/%d/manual_time" % n
        if all(p in fav for p in parts) and pair in fav:
            total = sum(ns(fav, p) for p in parts)
            print("  N=%-6d parse %s, validate %s, look-ups %s; sum %s (combined baseline %s), load %s" % (
                n, fmt_time(ns(fav, parts[0])), fmt_time(ns(fav, parts[1])), fmt_time(ns(fav, parts[2])),
                fmt_time(total), fmt_time(fav[pair]["median"]["baseline_ms"] * 1e6), fmt_time(ns(fav, pair))))
    m = "BM_MemoryPerFavorite/iterations:1"
    if m in fav:
        print("  heap per favorite counted by the tracking allocator (items only): %.0f B" %
              fav[m]["median"]["tracked_item_bytes_per_favorite"])
    print()
    print("variation (coefficient of variation of real time over the repetitions):")
    for name in sorted(fav):
        print("  %-48s median %-10s cv %.1f%%" % (name, fmt_time(ns(fav, name)), 100 * cv(fav, name)))

if cat:
    print()
    print("catalog_bench:")
    for name in sorted(cat):
        print("  %-48s median %-10s cv %.1f%%" % (name, fmt_time(ns(cat, name)), 100 * cv(cat, name)))

if backend_lines:
    print()
    print("catalog back-ends side by side (one call each, outside a read batch; a persist is one write):")
    for l in backend_lines:
        print(l)

if missing:
    print()
    print("missing from the results: " + ", ".join(sorted(set(missing))))
    sys.exit(1)
PY

# The server under load from a second process (wrk), beside /healthz and a raw
# durable SQLite write measured in the same run.
if [ -x build/release/apps/favoritesd/favoritesd ] && [ -x build/release/bench/server_bench_setup ]; then
  /usr/bin/python3 bench/server/server_bench.py build/release
else
  echo "server benchmark: favoritesd or server_bench_setup is not built" >&2
  exit 1
fi
