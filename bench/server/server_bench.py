#!/usr/bin/python3
"""The server benchmark: a real favoritesd on loopback, loaded by wrk from a
second process (64 connections, 8 users), every figure beside a baseline
measured in the same run.

  server_bench.py BUILD_DIR [--seconds S]

Figures:
  status    POST /api/v1/favorites/status with 50 paths
  children  GET /api/v1/catalog/children of a folder of 50 items
            each: throughput as a ratio of the same server's /healthz
            (goal >= 0.5) and p99 latency (goal <= 5 ms)
  adds/s    for one user and for 8 users, beside one raw durable SQLite
            write per second (WAL, synchronous=FULL) on the same disk
  memory    resident memory per cached user with 100 favorites
"""
import argparse
import base64
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))


def auth(user):
    return "Basic " + base64.b64encode(f"{user}:bench".encode()).decode()


def wrk(url, seconds, script=None, args=(), connections=64):
    cmd = ["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "--latency", "--timeout", "10s"]
    if script:
        cmd += ["-s", os.path.join(HERE, script)]
    cmd.append(url)
    if args:
        cmd += ["--"] + list(args)
    out = subprocess.run(cmd, check=True, capture_output=True, text=True).stdout
    rps = float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1))
    p99 = re.search(r"99%\s+([\d.]+)(us|ms|s)\b", out)
    scale = {"us": 0.001, "ms": 1.0, "s": 1000.0}[p99.group(2)]
    bad = re.search(r"Non-2xx or 3xx responses:\s+(\d+)", out)
    errors = re.search(r"Socket errors:.*", out)
    return {"rps": rps, "p99ms": float(p99.group(1)) * scale, "non2xx": int(bad.group(1)) if bad else 0,
            "socketErrors": errors.group(0) if errors else "", "command": " ".join(cmd[:8]) + " " + url}


def rss_kib(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def get(base, path, user):
    req = urllib.request.Request(base + path, headers={"Authorization": auth(user)})
    with urllib.request.urlopen(req, timeout=30) as r:
        return r.read()


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build_dir")
    ap.add_argument("--seconds", type=int, default=5)
    a = ap.parse_args()
    server = os.path.join(a.build_dir, "apps/favoritesd/favoritesd")
    setup = os.path.join(a.build_dir, "bench/server_bench_setup")
    tmp = tempfile.mkdtemp(prefix="favoritesd-bench-")
    catalog = os.path.join(tmp, "catalog.db")
    raw = json.loads(subprocess.run([setup, catalog, os.path.join(tmp, "raw.db")], check=True,
                                    capture_output=True, text=True).stdout)
    # The bound for the listing: the same server answering a body of the
    # same size from memory, with no sign-in and no catalog work. A first
    # start learns the listing's size; the measured server serves a file of
    # that size beside it.
    web = os.path.join(tmp, "web")
    os.mkdir(web)
    listing = "/api/v1/catalog/children?path=/shared/Fifty"

    def start(web_dir):
        p = subprocess.Popen([server, "--catalog", catalog, "--listen", "127.0.0.1:0", "--access-log", "off",
                              "--max-users", "10000", "--web-dir", web_dir], stdout=subprocess.PIPE, text=True)
        return p, p.stdout.readline().strip().split(" ", 2)[2]

    proc, base = start(web)
    try:
        listing_bytes = len(get(base, listing, "u1"))
    finally:
        proc.send_signal(signal.SIGTERM)
        proc.wait(timeout=60)
    with open(os.path.join(web, "same-size.json"), "w") as f:
        f.write("[" + " " * (listing_bytes - 2) + "]")
    proc, base = start(web)
    try:
        users = [f"u{i}" for i in range(1, 9)]
        auths = [auth(u) for u in users]
        # Load each user's manager and verify each password once before timing.
        for u in users:
            get(base, "/api/v1/favorites", u)
        body = os.path.join(tmp, "status.json")
        with open(body, "w") as f:
            json.dump({"paths": [f"/shared/Fifty/Report {i}" for i in range(50)]}, f)
        s = a.seconds
        health = wrk(base + "/healthz", s)
        status = wrk(base + "/api/v1/favorites/status", s, "rotate.lua", ["POST", body] + auths)
        children = wrk(base + listing, s, "rotate.lua", ["GET", "-"] + auths)
        same_size = wrk(base + "/same-size.json", s)
        adds1 = wrk(base + "/", 3, "add.lua", ["0", auths[0]])
        adds8 = wrk(base + "/", 3, "add.lua", ["10000"] + auths)

        # Memory: 200 more users with 100 favorites each.
        time.sleep(0.5)
        before = rss_kib(proc.pid)
        for i in range(1, 201):
            get(base, "/api/v1/favorites", f"m{i}")
        after = rss_kib(proc.pid)
        per_user = (after - before) / 200.0
    finally:
        proc.send_signal(signal.SIGTERM)
        proc.wait(timeout=60)

    rows = []

    def row(name, value, baseline, ratio, goal, ok):
        rows.append((name, value, baseline, ratio, goal, "PASS" if ok else ("MISS" if ok is False else "-")))

    for name, r in (("status, 50 paths", status), ("catalog/children, 50 items", children)):
        ratio = r["rps"] / health["rps"]
        row(f"{name}: throughput", f"{r['rps']:.0f}/s", f"healthz {health['rps']:.0f}/s", f"{ratio:.2f}",
            ">= 0.5", ratio >= 0.5)
        row(f"{name}: p99 latency", f"{r['p99ms']:.2f} ms", f"healthz {health['p99ms']:.2f} ms", "-", "<= 5 ms",
            r["p99ms"] <= 5.0)
    bound = same_size["rps"] / health["rps"]
    row(f"  bound: a {listing_bytes}-byte body from memory", f"{same_size['rps']:.0f}/s",
        f"healthz {health['rps']:.0f}/s", f"{bound:.2f}", "-", None)
    row("  catalog/children beside that bound", f"{children['rps']:.0f}/s", f"{same_size['rps']:.0f}/s",
        f"{children['rps'] / same_size['rps']:.2f}", "-", None)
    rw = raw["rawWritesPerSecond"]
    row("adds, 1 user", f"{adds1['rps']:.0f}/s", f"raw durable write {rw:.0f}/s", f"{adds1['rps'] / rw:.2f}", "-", None)
    row("adds, 8 users", f"{adds8['rps']:.0f}/s", f"raw durable write {rw:.0f}/s", f"{adds8['rps'] / rw:.2f}", "-", None)
    row("memory per cached user, 100 favorites", f"{per_user:.0f} KiB", f"RSS {before} -> {after} KiB", "-", "-", None)

    print()
    print("favoritesd under wrk -t1 -c64 on loopback (" + str(s) + " s per figure, adds 3 s)")
    widths = [max(len(str(r[i])) for r in rows + [("figure", "value", "baseline", "ratio", "goal", "result")])
              for i in range(6)]
    header = ("figure", "value", "baseline", "ratio", "goal", "result")
    for r in [header] + rows:
        print("  ".join(str(c).ljust(w) for c, w in zip(r, widths)))
    for name, r in (("healthz", health), ("status", status), ("children", children), ("same size", same_size),
                    ("adds 1", adds1),
                    ("adds 8", adds8)):
        if r["non2xx"] or r["socketErrors"]:
            print(f"note: {name}: {r['non2xx']} non-2xx answers {r['socketErrors']}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
