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

HERE = pathlib.Path(__file__).resolve().parent
ETC = pathlib.Path("/mnt/main/etc")
SIZES = {"200 KiB": 200 << 10, "5 MiB": 5 << 20, "50 MiB": 50 << 20}
RESULTS = {"tables": {}}


def packed_files(build):
    """A file for each entry of the configuration directory that a full snapshot packs."""
    table = subprocess.check_output([build / "source/print-contents"], text=True)
    entries = (line.split("\t") for line in table.splitlines())
    return [path.replace("*", "1") for path, base, types, *_ in entries
            if base == "config" and "full" in types]


class Bench:
    def __init__(self, build):
        self.host = str(build / "bench/bench-host")
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="confsave-bench-"))
        self.files = packed_files(build)
        self.real = real_files()
        for name in ("config", "state", "tmp", "target"):
            (self.root / name).mkdir()

    def start(self, *words, **environment):
        environment = {**os.environ, "KELMOR_CONFIG_PATH": f"{self.root}/config/", "LC_ALL": "C",
                       "KELMOR_DYNAMIC_DIR": f"{self.root}/state", "KELMOR_TEMP_DIR": f"{self.root}/tmp",
                       "KELMOR_LOG_LEVEL": "0", "FILES": " ".join(self.files), **environment}
        return subprocess.Popen(list(map(str, words)), env=environment, stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)

    def run(self, *words, **environment):
        """Returns how many seconds a command takes."""
        start = time.perf_counter()
        if self.start(*words, **environment).wait() != 0:
            sys.exit(f"bench: failed: {' '.join(map(str, words))}: run it by hand to see why")
        return time.perf_counter() - start

    def figures(self, *words):
        file = self.root / "figures"
        self.run(self.host, *words, BENCH_FIGURES=str(file))
        return json.loads(file.read_text())

    def ways(self, *words):
        """The same work by hand, by the library with gzip, and by the library as it is."""
        return {"floor": lambda: self.run(HERE / "floor", *words),
                "confsave, gzip": lambda: self.run(self.host, *words, KELMOR_GZIP="/usr/bin/gzip"),
                "confsave": lambda: self.run(self.host, *words)}

    def clear(self, name):
        shutil.rmtree(self.root / name)
        (self.root / name).mkdir()

    def make_configuration(self, size):
        """Real files of this machine, arranged as a gateway's."""
        self.clear("config")
        share = size // len(self.files)
        files = iter(self.real)
        for name in self.files:
            path = self.root / "config" / name
            path.parent.mkdir(exist_ok=True)
            with open(path, "wb") as out:
                while out.tell() < share:
                    out.write(next(files).read_bytes()[:share - out.tell()])
        (ETC / "failover.ini").write_bytes(self.real[0].read_bytes()[:2000])

    def fill(self, count, kibibytes):
        self.clear("state")
        self.run(self.host, "fill", count, kibibytes)


def real_files():
    """Many, in a fixed order: text of /etc and /usr/share first, then anything."""
    return [path for root in ("/etc", "/usr/share", "/usr/include", "/usr/lib/python3")
            for path in sorted(pathlib.Path(root).rglob("*"))
            if path.is_file() and not path.is_symlink() and os.access(path, os.R_OK)
            and 200 < path.stat().st_size < 2_000_000][:6000] * 20


def quartiles(times):
    low, middle, high = statistics.quantiles(times, n=4) if len(times) > 1 else times * 3
    return {"median": middle, "low": low, "high": high}


def turn_about(rounds, ways, prepare=lambda: None):
    """ways: name -> function that returns seconds. They take turns; the first round does not count."""
    times = {name: [] for name in ways}
    for number in range(rounds + 1):
        for name, way in ways.items():
            prepare()
            seconds = way()
            if number > 0:
                times[name].append(seconds)
    return {name: quartiles(values) for name, values in times.items()}


def show(title, rows, base):
    """rows: label -> name -> quartiles. Ratios are to `base`."""
    RESULTS["tables"][title] = {"base": base, "rows": rows}
    print(f"\n{title}")
    for label, ways in rows.items():
        for name, way in ways.items():
            print(f"  {label:<12} {name:<16} {way['median'] * 1000:10.2f} ms  "
                  f"[{way['low'] * 1000:.2f} … {way['high'] * 1000:.2f}] "
                  f"{way['median'] / ways[base]['median']:6.2f}")


def note(label, text):
    """A figure without a base."""
    RESULTS.setdefault("figures", {})[label] = text
    print(f"  {label}: {text}")


def rounds_for(rounds, size):
    return max(3, rounds if size < 20 << 20 else rounds // 3)


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


def others(bench):
    """Tools that keep files too, where they are installed."""
    ways, root, config = {}, bench.root, bench.root / "config"
    run = functools.partial(bench.run, HOME=str(root), RESTIC_PASSWORD="x",
                            BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK="yes")
    for name in ("git", "restic", "borg"):
        shutil.rmtree(root / name, ignore_errors=True)
    if shutil.which("git"):
        run("git", "init", "-q", root / "git")
        git = ["git", f"--git-dir={root}/git/.git", f"--work-tree={config}", "-c", "user.name=x", "-c",
               "user.email=x@example.com"]
        ways["git"] = lambda: (run(*git, "add", "-A") +
                               run(*git, "commit", "-q", "--allow-empty", "-m", "x"))
    if shutil.which("restic"):
        run("restic", "init", "-r", root / "restic")
        ways["restic"] = lambda: run("restic", "-q", "-r", root / "restic", "backup", config)
    if shutil.which("borg"):
        run("borg", "init", "-e", "none", root / "borg")
        ways["borg"] = lambda: run("borg", "create", f"{root}/borg::{time.time_ns()}", config)
    return ways


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


def page():
    """The tables and figures in Markdown. Other ways than the base are ratios to it."""
    lines = ["; ".join(f"{name} {value}" for name, value in RESULTS["machine"].items()) + "."]
    for title, table in RESULTS["tables"].items():
        names = list(next(iter(table["rows"].values())))
        lines += ["", f"| {title} | " + " | ".join(names) + " |", "|---" * (len(names) + 1) + "|"]
        for label, ways in table["rows"].items():
            base = ways[table["base"]]["median"]
            cells = [f"{base * 1000:,.2f} ms" if name == table["base"] else f"{way['median'] / base:.2f}"
                     for name, way in ways.items()]
            lines.append(f"| {label} | " + " | ".join(cells) + " |")
    lines += ["", "| figure | |", "|---|---|"]
    lines += [f"| {label} | {text} |" for label, text in RESULTS["figures"].items()]
    return "\n".join(lines) + "\n"


def main():
    build, out = (pathlib.Path(word).resolve() for word in sys.argv[1:3])
    quick = "--quick" in sys.argv
    rounds = 5 if quick else 15
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    build_type = next(line.split("=")[1] for line in cache.splitlines() if "CMAKE_BUILD_TYPE:" in line)
    load = round(os.getloadavg()[0], 1)
    RESULTS["machine"] = {"rounds": rounds, "load before the run": load, "build": build_type,
                          "SQLite": sqlite3.sqlite_version, "igzip": bool(shutil.which("igzip")),
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
        contention(bench, 2 if quick else 5)
        instructions(build)
    finally:
        shutil.rmtree(bench.root, ignore_errors=True)
    out.mkdir(parents=True, exist_ok=True)
    (out / "results.json").write_text(json.dumps(RESULTS, indent=2) + "\n", encoding="utf-8")
    (out / "figures.md").write_text(page(), encoding="utf-8")
    print(f"\n{out}/results.json, {out}/figures.md")


main()
