"""What the benchmarks share: a gateway to measure on, ways that take turns, and the tables."""

import functools
import json
import os
import pathlib
import shutil
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


@functools.cache
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
