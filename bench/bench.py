#!/usr/bin/env python3
"""Measures the library beside the same work by hand, turn about, and prints medians, quartiles and ratios.

    bench.py BUILD [--quick] [--out=DIR]

Writes results.json and results.svg into DIR. Run by script/bench.
"""

import json
import math
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
NAMES = ["user/gateway.conf", "user/gateway.key", "user/interfaces.conf", "user/routes.conf",
         "user/filter.conf",
         "user/nat.conf", "user/services.conf", "user/users.conf", "user/schedule.conf", "user/notify.conf",
         "user/kwtp.conf", "user/upgrade.conf", "gw1.conf", "gw2.conf", "hub/out", "hub/old"]
RESULTS = {"tables": {}}


class Bench:
    def __init__(self, build):
        self.host = str(build / "bench/bench-host")
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="confsave-bench-"))
        for name in ("config/user", "config/hub", "state", "tmp", "target"):
            (self.root / name).mkdir(parents=True)

    def environment(self, **more):
        return {**os.environ, "KELMOR_CONFIG_PATH": f"{self.root}/config/", "LC_ALL": "C",
                "KELMOR_DYNAMIC_DIR": f"{self.root}/state", "KELMOR_TEMP_DIR": f"{self.root}/tmp",
                "KELMOR_LOG_LEVEL": "0", **more}

    def run(self, words, **environment):
        start = time.perf_counter()
        subprocess.run(list(map(str, words)), env=self.environment(**environment), check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return time.perf_counter() - start

    def figures(self, *words, **environment):
        file = self.root / "figures"
        self.run([self.host, *words], BENCH_FIGURES=str(file), **environment)
        return json.loads(file.read_text())

    def clear(self, name):
        shutil.rmtree(self.root / name)
        (self.root / name).mkdir()

    def make_configuration(self, size):
        """Real files of this machine, arranged as a gateway's."""
        self.clear("config")
        (self.root / "config/user").mkdir()
        (self.root / "config/hub").mkdir()
        share = size // len(NAMES)
        files = iter(REAL_FILES)
        for name in NAMES:
            with open(self.root / "config" / name, "wb") as out:
                while out.tell() < share:
                    out.write(next(files).read_bytes()[:share - out.tell()])
        (ETC / "failover.ini").write_bytes(REAL_FILES[0].read_bytes()[:2000])


def real_files():
    """Endless, in a fixed order: text of /etc and /usr/share first, then anything."""
    found = [path for root in ("/etc", "/usr/share", "/usr/include", "/usr/lib/python3") for path in
             sorted(pathlib.Path(root).rglob("*")) if path.is_file() and not path.is_symlink()
             and os.access(path, os.R_OK) and 200 < path.stat().st_size < 2_000_000][:6000]
    return found * 20


REAL_FILES = []


def quartiles(times):
    low, middle, high = statistics.quantiles(times, n=4) if len(times) > 1 else times * 3
    return {"median": middle, "low": low, "high": high}


def turn_about(rounds, ways, prepare=lambda: None):
    """ways: name -> function that returns seconds. One of each, then the next round."""
    times = {name: [] for name in ways}
    for name, way in ways.items():
        prepare()
        way()
    for _ in range(rounds):
        for name, way in ways.items():
            prepare()
            times[name].append(way())
    return {name: quartiles(values) for name, values in times.items()}


def show(title, rows, base):
    """rows: label -> name -> quartiles. Ratios are to `base`."""
    RESULTS["tables"][title] = rows
    print(f"\n{title}")
    for label, ways in rows.items():
        for name, way in ways.items():
            ratio = f"{way['median'] / ways[base]['median']:6.2f}" if base in ways else ""
            print(f"  {label:<12} {name:<16} {way['median'] * 1000:10.2f} ms  "
                  f"[{way['low'] * 1000:.2f} … {way['high'] * 1000:.2f}] {ratio}")


def saves(bench, rounds):
    for kind in ("first", "overwrite", "one file changed"):
        rows = {}
        for label, size in SIZES.items():
            bench.make_configuration(size)

            def prepare(kind=kind):
                if kind == "first":
                    bench.clear("state")
                if kind == "one file changed":
                    with open(bench.root / "config/user/filter.conf", "ab") as out:
                        out.write(b"one line more\n")

            ways = {
                "floor": lambda: bench.run([HERE / "floor", "save", "weekly"]),
                "confsave, gzip": lambda: bench.run([bench.host, "save", "weekly"],
                                                    KELMOR_GZIP="/usr/bin/gzip"),
                "confsave": lambda: bench.run([bench.host, "save", "weekly"]),
            }
            ways.update(others(bench))
            rows[label] = turn_about(max(3, rounds if size < 20 << 20 else rounds // 3), ways, prepare)
        show(f"save, {kind}", rows, "floor")


def others(bench):
    """Tools that keep files too, where they are installed."""
    ways, root = {}, bench.root
    quiet = {"HOME": str(root), "RESTIC_PASSWORD": "x", "BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK": "yes"}
    if shutil.which("git"):
        subprocess.run(["git", "init", "-q", f"{root}/git"], check=True)
        call = ["git", f"--git-dir={root}/git/.git", f"--work-tree={root}/config", "-c", "user.name=x",
                "-c", "user.email=x@example.com"]
        ways["git"] = lambda: (bench.run([*call, "add", "-A"]) +
                               bench.run([*call, "commit", "-q", "--allow-empty", "-m", "x"]))
    if shutil.which("restic"):
        shutil.rmtree(root / "restic", ignore_errors=True)
        bench.run(["restic", "init", "-r", root / "restic"], **quiet)
        call_restic = ["restic", "-q", "-r", root / "restic", "backup", root / "config"]
        ways["restic"] = lambda: bench.run(call_restic, **quiet)
    if shutil.which("borg"):
        shutil.rmtree(root / "borg", ignore_errors=True)
        bench.run(["borg", "init", "-e", "none", root / "borg"], **quiet)
        ways["borg"] = lambda: bench.run(["borg", "create", f"{root}/borg::{time.time_ns()}",
                                          root / "config"], **quiet)
    return ways


def ways_to_load(bench, target):
    return {
        "floor": lambda: bench.run([HERE / "floor", "load", "weekly", *target]),
        "confsave, gzip": lambda: bench.run([bench.host, "load", "weekly", *target],
                                            KELMOR_GZIP="/usr/bin/gzip"),
        "confsave": lambda: bench.run([bench.host, "load", "weekly", *target]),
    }


def loads(bench, rounds):
    for kind in ("over a damaged tree", "into an empty target"):
        rows = {}
        for label, size in SIZES.items():
            bench.make_configuration(size)
            bench.clear("state")
            bench.run([bench.host, "save", "weekly"], KELMOR_GZIP="/usr/bin/gzip")
            target = [] if kind.startswith("over") else [f"{bench.root}/target/"]

            def prepare():
                bench.clear("target")
                (bench.root / "config/user/filter.conf").write_text("damaged\n")
                (bench.root / "config/hub/out").unlink(missing_ok=True)

            rows[label] = turn_about(max(3, rounds if size < 20 << 20 else rounds // 3),
                                     ways_to_load(bench, target), prepare)
        show(f"load, {kind}", rows, "floor")


def default_layout(bench):
    """The same rows as SQLite would lay them out unasked."""
    database = bench.root / "state/storage.db"
    connection = sqlite3.connect(database, isolation_level=None)
    connection.execute("pragma auto_vacuum=none")
    connection.execute("vacuum")
    connection.close()


def listings(bench, rounds, quick):
    rows = {}
    for count in (10, 100, 1000) if quick else (10, 100, 1000, 10000):
        bench.clear("state")
        bench.run([bench.host, "fill", count, 1])
        rows[f"{count}"] = turn_about(rounds, {
            "floor": lambda: bench.run([HERE / "floor", "list"]),
            "confsave": lambda: bench.run([bench.host, "list"])})
    show("list, snapshots of 1 KiB", rows, "floor")

    rows, read = {}, {}
    count = 200 if quick else 1000
    for kibibytes in (1, 64, 256, 1024):
        bench.clear("state")
        bench.run([bench.host, "fill", count, kibibytes])
        ours = [bench.figures("list") for _ in range(rounds)]
        default_layout(bench)
        default = [bench.figures("list") for _ in range(rounds)]
        rows[f"{kibibytes} KiB"] = {"default layout": quartiles([f["all"] for f in default]),
                                    "confsave": quartiles([f["all"] for f in ours])}
        read[f"{kibibytes} KiB"] = {"default layout": default[0]["read"], "confsave": ours[0]["read"]}
    show(f"list, {count} snapshots, by size", rows, "default layout")
    RESULTS["bytes read"] = read
    for label, ways in read.items():
        print(f"  {label:<12} bytes read: {ways['confsave']:>12,} of {ways['default layout']:>14,}"
              f"  {ways['confsave'] / ways['default layout']:6.3f}")


def layout_cost(bench, rounds):
    """What the layout costs where rows are written."""
    rows = {}
    statements = {"insert": "insert into Config (name, version, keybase) "
                            "values (hex(randomblob(8)), 1, zeroblob(1048576))",
                  "overwrite": "begin; delete from Config where id=5; "
                               "insert into Config (id, name, version, keybase) "
                               "values (5, 'x', 1, randomblob(1048576)); commit",
                  "delete": "delete from Config where id=(select max(id) from Config)"}
    connections = {}
    for layout in ("default layout", "confsave"):
        bench.clear("state")
        bench.run([bench.host, "fill", 100, 1024])
        if layout == "default layout":
            default_layout(bench)
        shutil.copy(bench.root / "state/storage.db", bench.root / f"{layout}.db")
        connections[layout] = sqlite3.connect(bench.root / f"{layout}.db", isolation_level=None)

    def timed(connection, sql):
        start = time.perf_counter()
        connection.executescript(sql)
        return time.perf_counter() - start

    for label, sql in statements.items():
        rows[label] = turn_about(rounds * 2, {name: lambda c=connection, s=sql: timed(c, s)
                                              for name, connection in connections.items()})
    show("writing 1 MiB, by layout", rows, "default layout")


def own_share(bench, rounds):
    bench.make_configuration(SIZES["5 MiB"])
    bench.clear("state")
    print("\nthe library's own part, 5 MiB (all but commands and syncs)")
    for words in (("save", "weekly"), ("load", "weekly", f"{bench.root}/target/")):
        figures = [bench.figures(*words) for _ in range(rounds)]
        own = statistics.median(f["all"] - f["commands"] - f["syncs"] for f in figures)
        memory = max(f["memory"] for f in figures)
        RESULTS.setdefault("own", {})[words[0]] = {"seconds": own, "memory": memory}
        print(f"  {words[0]:<12} {own * 1000:10.2f} ms, memory grows by {memory} KiB")
    connection = sqlite3.connect(bench.root / "state/storage.db")
    size = connection.execute("select length(keybase), length(etc) from Config").fetchone()
    connection.close()
    RESULTS["stored bytes"] = sum(size)
    print(f"  stored: {sum(size):,} bytes for {SIZES['5 MiB']:,}")


def small_things(bench, rounds):
    bench.make_configuration(SIZES["200 KiB"])
    bench.clear("state")
    bench.run([bench.host, "fill", 10, 1])
    show("start, open, list ten rows", {"": turn_about(rounds * 3, {
        "floor": lambda: bench.run([HERE / "floor", "list"]),
        "confsave": lambda: bench.run([bench.host, "list"]),
        "open only": lambda: bench.run([bench.host, "open"])})}, "floor")
    show("autosave with cleaning", {"200 KiB": turn_about(rounds, {
        "save": lambda: bench.run([bench.host, "save", "weekly"]),
        "autosave": lambda: bench.run([bench.host, "autosave", "3"])})}, "save")


def contention(bench, seconds):
    bench.make_configuration(SIZES["200 KiB"])
    print("\ncontention, 200 KiB")
    for count in (1, 2, 4, 8):
        bench.clear("state")
        end, waits, done = time.perf_counter() + seconds, [], 0
        running = {}
        number = 0
        while running or time.perf_counter() < end:
            while len(running) < count and time.perf_counter() < end:
                number += 1
                process = subprocess.Popen([bench.host, "save", f"name{number}"], env=bench.environment(),
                                           stdout=subprocess.DEVNULL)
                running[process.pid] = time.perf_counter()
            pid, status = os.wait()
            waits.append(time.perf_counter() - running.pop(pid))
            done += status == 0
        RESULTS.setdefault("contention", {})[count] = {"per second": done / seconds, "longest": max(waits)}
        print(f"  {count} at once    {done / seconds:6.1f} saves a second, "
              f"the longest took {max(waits) * 1000:.0f} ms")


def instructions(build):
    if not shutil.which("valgrind"):
        return
    print("\ninstructions, by callgrind")

    def count(part, rounds):
        with tempfile.NamedTemporaryFile() as out:
            report = subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out.name}",
                                     str(build / "bench/bench-pure"), part, str(rounds)],
                                    capture_output=True, text=True, check=True).stderr
        return int(next(line for line in report.splitlines() if "Collected" in line).rsplit(None, 1)[1])

    for part in ("version-to-text", "text-to-version", "statement", "time", "record-line"):
        each = (count(part, 3000) - count(part, 1000)) / 2000
        RESULTS.setdefault("instructions", {})[part] = each
        print(f"  {part:<18} {each:10.0f}")


def chart(x, y, title, labels, series):
    """Lines over labels, on a logarithmic scale."""
    values = [v for points in series.values() for v in points]
    low, high = math.log10(min(values)), math.log10(max(values))
    width, height, colours = 360, 220, ["#888888", "#1f6fb2", "#c0392b", "#2e8b57"]
    out = [f'<g transform="translate({x},{y})" font-family="sans-serif" font-size="11">',
           f'<text x="0" y="-12" font-size="13">{title}</text>',
           f'<rect width="{width}" height="{height}" fill="none" stroke="#cccccc"/>']

    def place(i, v):
        return (width * (i + 0.5) / len(labels),
                height - (math.log10(v) - low) / ((high - low) or 1) * (height - 20) - 10)

    for i, label in enumerate(labels):
        out.append(f'<text x="{place(i, values[0])[0]}" y="{height + 15}" text-anchor="middle">'
                   f'{label}</text>')
    for number, (name, points) in enumerate(series.items()):
        colour = colours[number % len(colours)]
        path = " ".join(f"{px:.1f},{py:.1f}" for px, py in (place(i, v) for i, v in enumerate(points)))
        out.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        end = place(len(points) - 1, points[-1])
        out.append(f'<text x="{end[0] + 4:.1f}" y="{end[1]:.1f}" fill="{colour}">'
                   f'{name} {points[-1] * 1000:.0f} ms</text>')
    return out + ["</g>"]


def picture(path):
    tables = RESULTS["tables"]
    out = ['<svg xmlns="http://www.w3.org/2000/svg" width="1000" height="320">',
           '<rect width="1000" height="320" fill="white"/>']
    titles = ["save, overwrite"] + [title for title in tables if "by size" in title]
    for number, title in enumerate(titles):
        rows = tables[title]
        names = [name for name in next(iter(rows.values()))
                 if name in ("floor", "confsave", "confsave, gzip", "default layout")]
        series = {name: [rows[label][name]["median"] for label in rows] for name in names}
        out += chart(30 + number * 500, 40, title, list(rows), series)
    path.write_text("\n".join(out + ["</svg>"]) + "\n")


def lines_of(file):
    return pathlib.Path(file).read_text(encoding="utf-8").splitlines()


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    quick = "--quick" in sys.argv
    directory = next((pathlib.Path(w[6:]) for w in sys.argv if w.startswith("--out=")), build)
    rounds = 5 if quick else 15
    cpu = next((line.split(":", 1)[1].strip() for line in lines_of("/proc/cpuinfo")
                if "model name" in line), "?")
    kind = next(line.split("=")[1].strip() for line in lines_of(build / "CMakeCache.txt")
                if "CMAKE_BUILD_TYPE:" in line)
    RESULTS["machine"] = {"cpu": cpu, "cores": os.cpu_count(), "system": platform.platform(), "build": kind,
                          "sqlite": sqlite3.sqlite_version, "igzip": bool(shutil.which("igzip"))}
    print("; ".join(f"{name} {value}" for name, value in RESULTS["machine"].items()))
    if kind not in ("Release", "RelWithDebInfo"):
        print("NOT OPTIMISED: these figures say nothing")
    REAL_FILES.extend(real_files())
    bench = Bench(build)
    try:
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
    directory.mkdir(exist_ok=True)
    (directory / "results.json").write_text(json.dumps(RESULTS, indent=2) + "\n")
    picture(directory / "results.svg")
    print(f"\n{directory}/results.json, {directory}/results.svg")


main()
