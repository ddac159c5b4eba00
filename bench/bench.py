#!/usr/bin/env python3
"""Measures the library beside the same work by hand, turn about, and prints medians, quartiles and ratios.

    bench.py BUILD OUT [--quick]

Writes results.json, and the tables as figures.md, into OUT. Run by script/bench.
"""

import functools
import json
import os
import pathlib
import platform
import shutil
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time

import typed
from measuring import (RESULTS, SIZES, Bench, note, others, page, quartiles, rounds_for, show,
                       turn_about)


def saves(bench, rounds):
    def change_one_file():
        with open(bench.root / "config/user/filter.conf", "ab") as out:
            out.write(b"one line more\n")

    prepare = {"the file is made": lambda: bench.clear("state"), "over a row": lambda: None,
               "over a row, one file changed": change_one_file}
    for title, before in prepare.items():
        rows = {}
        for label, size in SIZES.items():
            bench.make_configuration(size)
            ways = {**bench.ways("save", "weekly"), **others(bench)}
            rows[label] = turn_about(rounds_for(rounds, size), ways, before)
        show(f"save, {title}", rows, "floor")


def loads(bench, rounds):
    def damage():
        bench.clear("target")
        (bench.root / "config/user/filter.conf").write_text("damaged\n")
        (bench.root / "config/hub/out").unlink(missing_ok=True)

    targets = {"over a damaged tree": [], "into an empty target": [f"{bench.root}/target/"]}
    for title, target in targets.items():
        rows = {}
        for label, size in SIZES.items():
            bench.make_configuration(size)
            bench.clear("state")
            bench.run(bench.host, "save", "weekly", KELMOR_GZIP="/usr/bin/gzip")
            ways = bench.ways("load", "weekly", *target)
            rows[label] = turn_about(rounds_for(rounds, size), ways, damage)
        show(f"load, {title}", rows, "floor")


def default_layout(bench):
    """The same rows in SQLite's default layout."""
    connection = sqlite3.connect(bench.root / "state/storage.db", isolation_level=None)
    connection.execute("pragma auto_vacuum=none")
    connection.execute("vacuum")
    connection.close()


def listings(bench, rounds, quick):
    rows = {}
    for count in (10, 100, 1000) if quick else (10, 100, 1000, 10000):
        bench.fill(count, 1)
        ways = bench.ways("list")
        rows[str(count)] = turn_about(rounds, {name: ways[name] for name in ("floor", "confsave")})
    show("list, snapshots of 1 KiB", rows, "floor")

    rows, count = {}, 200 if quick else 1000
    for kibibytes in (1, 64, 256, 1024):
        bench.fill(count, kibibytes)
        ours = [bench.figures("list") for _ in range(rounds)]
        default_layout(bench)
        default = [bench.figures("list") for _ in range(rounds)]
        rows[f"{kibibytes} KiB"] = {"default layout": quartiles([f["all"] for f in default]),
                                    "confsave": quartiles([f["all"] for f in ours])}
        note(f"bytes read to list {count} × {kibibytes} KiB",
             f"{ours[0]['read']:,}; {default[0]['read']:,} in the default layout")
    show(f"list, {count} snapshots, by size", rows, "default layout")


def layout_cost(bench, rounds):
    """What the layout costs where rows are written."""
    statements = {"insert": "insert into Config (name, version, keybase) "
                            "values (hex(randomblob(8)), 1, zeroblob(1048576))",
                  "overwrite": "begin; delete from Config where id=5; "
                               "insert into Config (id, name, version, keybase) "
                               "values (5, 'x', 1, randomblob(1048576)); commit",
                  "delete": "delete from Config where id=(select max(id) from Config)"}
    connections = {}
    for layout in ("default layout", "confsave"):
        bench.fill(100, 1024)
        if layout == "default layout":
            default_layout(bench)
        file = shutil.copy(bench.root / "state/storage.db", bench.root / f"{layout}.db")
        connections[layout] = sqlite3.connect(file, isolation_level=None)

    def timed(connection, sql):
        start = time.perf_counter()
        connection.executescript(sql)
        return time.perf_counter() - start

    show("write 1 MiB, by layout",
         {label: turn_about(rounds * 2, {name: functools.partial(timed, connection, sql)
                                         for name, connection in connections.items()})
          for label, sql in statements.items()}, "default layout")


def own_share(bench, rounds):
    bench.make_configuration(SIZES["5 MiB"])
    bench.clear("state")
    print("\nthe library's own part, 5 MiB (all but commands and syncs)")
    for words in (("save", "weekly"), ("load", "weekly", f"{bench.root}/target/")):
        figures = [bench.figures(*words) for _ in range(rounds)]
        own = statistics.median(f["all"] - f["commands"] - f["syncs"] for f in figures)
        note(f"the library's own part of a {words[0]} of 5 MiB",
             f"{own * 1000:.1f} ms; memory grows by {max(f['memory'] for f in figures):,} KiB")
    connection = sqlite3.connect(bench.root / "state/storage.db")
    size = connection.execute("select length(keybase) + length(etc) from Config").fetchone()[0]
    connection.close()
    note("bytes stored for 5 MiB", f"{size:,}")


def small_things(bench, rounds):
    bench.make_configuration(SIZES["200 KiB"])
    bench.fill(10, 1)
    ways = bench.ways("list")
    show("start, open, list ten rows", {"": turn_about(rounds * 3, {
        "floor": ways["floor"], "confsave": ways["confsave"],
        "open only": lambda: bench.run(bench.host, "open")})}, "floor")
    show("autosave with cleaning", {"200 KiB": turn_about(rounds, {
        "save": lambda: bench.run(bench.host, "save", "weekly"),
        "autosave": lambda: bench.run(bench.host, "autosave", "3")})}, "save")


def contention(bench, seconds):
    bench.make_configuration(SIZES["200 KiB"])
    print("\ncontention, 200 KiB")
    for count in (1, 2, 4, 8):
        bench.clear("state")
        end, waits, running, number = time.perf_counter() + seconds, [], {}, 0
        while running or time.perf_counter() < end:
            while len(running) < count and time.perf_counter() < end:
                number += 1
                process = bench.start(bench.host, "save", f"name{number}")
                running[process.pid] = process, time.perf_counter()
            pid, status = os.wait()
            if status != 0:
                sys.exit("bench: a save failed beside others: run script/faults processes")
            process, start = running.pop(pid)
            process.returncode = status
            waits.append(time.perf_counter() - start)
        note(f"{count} saving at once", f"{len(waits) / seconds:.1f} saves a second; "
                                        f"the longest took {max(waits) * 1000:.0f} ms")


def commands(build):
    """How long a command takes to start, in small and large hosts."""
    for mebibytes in (16, 1024, 4096):
        out = subprocess.check_output([build / "bench/bench-spawn", str(mebibytes), "100"], text=True)
        note(f"starting a command in a host of {mebibytes:,} MiB",
             "; ".join(" ".join(line.split()) for line in out.splitlines()[1:]))


def instructions(build):
    if not shutil.which("valgrind"):
        return
    print("\ninstructions, by callgrind")

    def count(part, rounds):
        with tempfile.NamedTemporaryFile() as out:
            report = subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out.name}",
                                     build / "bench/bench-pure", part, str(rounds)],
                                    capture_output=True, text=True, check=True).stderr
        return int(next(line for line in report.splitlines() if "Collected" in line).rsplit(None, 1)[1])

    for part in ("version-to-text", "text-to-version", "statement", "time", "record-line"):
        note(f"instructions, {part}", f"{(count(part, 3000) - count(part, 1000)) / 2000:,.0f}")


def main():
    build, out = (pathlib.Path(word).resolve() for word in sys.argv[1:3])
    quick = "--quick" in sys.argv
    rounds = 5 if quick else 15
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    build_type = next(line.split("=")[1] for line in cache.splitlines() if "CMAKE_BUILD_TYPE:" in line)
    load = round(os.getloadavg()[0], 1)
    RESULTS["machine"] = {"rounds": rounds, "load before the run": load, "build": build_type,
                          "SQLite": sqlite3.sqlite_version,
                          "Linux": platform.release().split("-")[0]}
    print("; ".join(f"{name} {value}" for name, value in RESULTS["machine"].items()))
    if build_type not in ("Release", "RelWithDebInfo"):
        sys.exit(f"bench: {build} is not optimised: its figures say nothing; build the preset release")
    bench = Bench(build)
    try:
        commands(build)
        saves(bench, rounds)
        loads(bench, rounds)
        listings(bench, max(5, rounds // 2), quick)
        layout_cost(bench, rounds)
        own_share(bench, rounds)
        small_things(bench, rounds)
        typed.measure(bench, build, rounds)
        contention(bench, 2 if quick else 5)
        instructions(build)
    finally:
        shutil.rmtree(bench.root, ignore_errors=True)
    out.mkdir(parents=True, exist_ok=True)
    (out / "results.json").write_text(json.dumps(RESULTS, indent=2) + "\n", encoding="utf-8")
    (out / "figures.md").write_text(page(), encoding="utf-8")
    print(f"\n{out}/results.json, {out}/figures.md")


main()
