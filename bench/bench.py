#!/usr/bin/env python3
"""Measures ConfSave beside the same work by hand and beside other programs, turn about.

    bench.py BUILD OUT [--quick]

Writes OUT/results.json. Run by script/bench.
"""

import datetime
import json
import os
import pathlib
import platform
import shutil
import sqlite3
import subprocess
import sys
import time

import beside
import inside
import listing
import nights
from measuring import FULL, QUICK, RESULTS, Bench, Turns
import peers

SEED = 1


def processor():
    lines = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines()
    names = [line.split(": ", 1)[1] for line in lines if line.startswith("model name")]
    return names[0] if names else platform.machine()


def revision():
    """Of the tree that is measured."""
    found = subprocess.run(["git", "-C", pathlib.Path(__file__).parent, "describe", "--always", "--dirty"],
                           capture_output=True, text=True, check=False)
    return found.stdout.strip() or "unknown"


def describe(build_type, effort, quick):
    least = f"{effort.least} to {effort.most} rounds in random order, seed {SEED}"
    RESULTS["machine"] = {
        "date": datetime.date.today().isoformat(), "cores": os.cpu_count(), "processor": processor(),
        "versions": {"ConfSave": f"{revision()} ({build_type})", "SQLite": sqlite3.sqlite_version,
                     **peers.versions(), "Linux": platform.release().split("-", maxsplit=1)[0]},
        "rounds": f"{'A quick run: ' if quick else ''}{least}.",
        "load before": round(os.getloadavg()[0], 1)}
    print(json.dumps(RESULTS["machine"], indent=1))


def measure(bench, build, effort, quick):
    others = peers.all_peers(bench)
    turns = Turns(effort, SEED)
    beside.saves(bench, others, turns)
    beside.restores(bench, others, turns)
    beside.comparisons(bench, others, turns)
    beside.verifications(bench, others, turns)
    listing.by_number(bench, others, turns, quick)
    listing.by_size(bench, turns, quick)
    listing.layout_cost(bench, turns)
    nights.measure(bench, others, quick)
    inside.own_part(bench, effort.most)
    inside.memory(bench)
    inside.parts(bench, effort.most)
    inside.contention(bench, 1 if quick else 5)
    if not quick:
        inside.commands(build)


def main():
    build, out = (pathlib.Path(word).resolve() for word in sys.argv[1:3])
    quick = "--quick" in sys.argv
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    build_type = next(line.split("=")[1] for line in cache.splitlines() if "CMAKE_BUILD_TYPE:" in line)
    if build_type not in ("Release", "RelWithDebInfo"):
        sys.exit(f"bench: {build} is not optimised: its figures say nothing; build the preset release")
    start = time.monotonic()
    bench = Bench(build)
    effort = QUICK if quick else FULL
    describe(build_type, effort, quick)
    RESULTS["machine"]["files"] = len(bench.files)
    try:
        measure(bench, build, effort, quick)
    finally:
        shutil.rmtree(bench.root, ignore_errors=True)
    RESULTS["machine"]["load after"] = round(os.getloadavg()[0], 1)
    RESULTS["machine"]["minutes"] = round((time.monotonic() - start) / 60)
    out.mkdir(parents=True, exist_ok=True)
    text = json.dumps(RESULTS, indent=1, ensure_ascii=False) + "\n"
    (out / "results.json").write_text(text, encoding="utf-8")
    print(f"\n{out}/results.json")


main()
