#!/usr/bin/env python3
"""Prints the benchmark figures of one scripts/bench.sh run against their goals.

    bench/report.py RESULTS_DIR

RESULTS_DIR holds the Google Benchmark JSON of favorites_bench, catalog_bench
and backends_bench. Every figure is the median over the repetitions of real
time, beside its baseline measured in the same run; the pairs timed in turns
report the median of the repetitions' own ratios. Exits 1 when a figure the
goals name is missing from the results.
"""
import json
import operator
import os
import sys

# Every goal in one table: (benchmark run, figure, counter read, how the ratio
# is formed, goal). "ratio" reads the run's own ratio counter; "1/ratio"
# turns a time ratio into a speed-up; "bytes" compares a counter with its
# bound. The comparison is the goal's first word.
GOALS = [
    ("favorites_bench", "BM_IsFavoriteVsStdMap/1000/manual_time",
     "isFavorite, 1000 favorites vs std::map look-up (in turns)", "ns/ratio", "<= 1.2"),
    ("favorites_bench", "BM_IsFavoriteVsStdMap/10000/manual_time",
     "isFavorite, 10000 favorites vs std::map look-up (in turns)", "ns/ratio", "<= 1.2"),
    ("favorites_bench", "BM_IsFavoriteVsSqlite/1000/manual_time",
     "isFavorite, 1000 favorites: SQLite row look-up / isFavorite (in turns)", "ns/1/ratio", ">= 20"),
    ("favorites_bench", "BM_IsFavoriteVsSqlite/10000/manual_time",
     "isFavorite, 10000 favorites: SQLite row look-up / isFavorite (in turns)", "ns/1/ratio", ">= 20"),
    ("favorites_bench", "BM_IsFavoriteThreads/real_time/threads:2",
     "isFavorite throughput, 2 threads / 1 thread", "threads", ">= 1.3"),
    ("favorites_bench", "BM_LoadVsBaseline/1000/manual_time",
     "load 1000 favorites vs parse+validate+look-ups", "paired", "<= 1.5"),
    ("favorites_bench", "BM_LoadVsBaseline/10000/manual_time",
     "load 10000 favorites vs parse+validate+look-ups", "paired", "<= 1.5"),
    ("favorites_bench", "BM_PersistVsBaseline/1000/manual_time",
     "persist 1000 favorites vs build+serialise+write", "paired", "<= 1.5"),
    ("favorites_bench", "BM_PersistVsBaseline/10000/manual_time",
     "persist 10000 favorites vs build+serialise+write", "paired", "<= 1.5"),
    ("favorites_bench", "BM_LoadFlatVsSpread/manual_time",
     "load 10000 in one category vs spread over categories of 10", "paired", "<= 3"),
    ("favorites_bench", "BM_UpdateAllJsonVsDirect/manual_time",
     "updateAll from JSON, 10000 favorites (no save) vs direct build", "paired", "<= 1.5"),
    ("favorites_bench", "BM_MemoryPerFavorite/iterations:1",
     "heap per favorite (tree + index, 64-char paths)", "bytes", "<= 600"),
    ("catalog_bench", "BM_CatalogGetItemInfoVsRaw/min_time:2.000/manual_time",
     "getItemInfo throughput vs raw prepared look-up (100,000 objects, in turns)", "ns/1/ratio", ">= 0.7"),
    ("backends_bench", "BM_LoadPostgresVsSqlite/min_time:2.000/manual_time",
     "load 10000 favorites: PostgreSQL catalog vs SQLite catalog (in turns)", "paired", "<= 2"),
]

COMPARE = {"<=": operator.le, ">=": operator.ge}
SCALE = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(out, name):
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


def ns(runs, name, key="real_time"):
    b = runs[name]["median"]
    return b[key] * SCALE[b["time_unit"]]


def cv(runs, name):
    b = runs[name].get("cv")
    return b["real_time"] if b else float("nan")


def print_variation(runs):
    """One line per benchmark: its median real time and coefficient of variation."""
    for name in sorted(runs):
        print("  %-48s median %-10s cv %.1f%%" % (name, fmt_time(ns(runs, name)), 100 * cv(runs, name)))


def fmt_time(v):
    for unit, f in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if v >= f:
            return "%.3g %s" % (v / f, unit)
    return "%.3g ns" % v


def figure(runs, name, how):
    """(value, baseline, ratio) of one run, as its goal reads it."""
    b = runs[name]["median"]
    if how == "ns/ratio":
        return fmt_time(b["ns"]), fmt_time(b["baseline_ns"]), b["ratio"]
    if how == "ns/1/ratio":
        return fmt_time(b["ns"]), fmt_time(b["baseline_ns"]), 1.0 / b["ratio"]
    if how == "paired":
        return fmt_time(ns(runs, name)), fmt_time(b["baseline_ms"] * 1e6), b["ratio"]
    if how == "threads":
        one = runs[name.replace("threads:2", "threads:1")]["median"]["items_per_second"]
        two = b["items_per_second"]
        return "%.3g/s" % two, "%.3g/s" % one, two / one
    if how == "bytes":
        v = b["bytes_per_favorite"]
        return "%.0f B" % v, "600 B", v / 600.0
    raise ValueError(how)


def main(out):
    results = {name: load(out, name) for name in ("favorites_bench", "catalog_bench", "backends_bench")}
    rows, missing = [], []
    for binary, name, what, how, goal in GOALS:
        context, runs = results[binary]
        if not runs:
            continue  # the binary did not run (bench.sh says why)
        if name not in runs or (how == "threads" and name.replace("threads:2", "threads:1") not in runs):
            missing.append(name)
            continue
        value, baseline, ratio = figure(runs, name, how)
        op, bound = goal.split()
        ok = COMPARE[op](ratio, float(bound))
        rows.append((what, value, baseline, "%.2f" % ratio, goal, "PASS" if ok else "MISS"))

    context, fav = results["favorites_bench"]
    headers = ("figure", "value", "baseline", "ratio", "goal", "result")
    widths = [max(len(str(r[i])) for r in rows + [headers]) for i in range(len(headers))]
    line = lambda r: "  ".join(str(c).ljust(w) for c, w in zip(r, widths))
    print()
    if context:
        print("host: %s CPUs at %s MHz, load average %s; medians of %s repetitions (real time)" % (
            context.get("num_cpus"), context.get("mhz_per_cpu"),
            " ".join("%.1f" % x for x in context.get("load_avg", [])),
            next(iter(fav.values()))["median"].get("repetitions", "?") if fav else "?"))
    print(line(headers))
    print(line(["-" * w for w in widths]))
    for r in rows:
        print(line(r))

    if fav:
        m1, m2 = "BM_IsFavoriteStdMapThreads/real_time/threads:1", "BM_IsFavoriteStdMapThreads/real_time/threads:2"
        if m1 in fav and m2 in fav:
            j1, j2 = fav[m1]["median"]["items_per_second"], fav[m2]["median"]["items_per_second"]
            print("two-thread scaling this machine allowed in the same run (unlocked std::map, no goal): "
                  "%.3g/s / %.3g/s = %.2f" % (j2, j1, j2 / j1))
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
        print_variation(fav)

    _, cat = results["catalog_bench"]
    if cat:
        print()
        print("catalog_bench:")
        print_variation(cat)

    _, be = results["backends_bench"]
    if be:
        lines = []
        for n, label in ((0, "SQLite"), (1, "PostgreSQL")):
            g, p = "BM_GetItemInfo/%d" % n, "BM_Persist/%d" % n
            if g in be and p in be:
                lines.append("  %-10s getItemInfo %s (%.3g/s), persist of 10000 favorites %s" % (
                    label, fmt_time(ns(be, g)), be[g]["median"]["items_per_second"], fmt_time(ns(be, p) / 2)))
            else:
                missing.extend(x for x in (g, p) if x not in be)
        if lines:
            print()
            print("catalog back-ends side by side (one call each, outside a read batch; a persist is one write):")
            print("\n".join(lines))

    if missing:
        print()
        print("missing from the results: " + ", ".join(sorted(set(missing))))
        return 1
    return 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1]))
