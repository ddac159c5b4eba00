"""What the benchmarks share: a gateway to measure on, and ways that take turns."""

import dataclasses
import filecmp
import functools
import json
import os
import pathlib
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
ETC = pathlib.Path("/mnt/main/etc")
SIZES = {"200 KiB": 200 << 10, "5 MiB": 5 << 20, "50 MiB": 50 << 20}
RESULTS = {"machine": {}, "tables": {}, "figures": {}}
GZIP = "/usr/bin/gzip"


@dataclasses.dataclass
class Effort:
    """How long to measure: `most` rounds, but a way that has taken `seconds` stops after the `least`."""
    most: int
    least: int
    seconds: float
    sizes: dict


FULL = Effort(most=21, least=5, seconds=6, sizes=SIZES)
QUICK = Effort(most=3, least=2, seconds=0.5, sizes={name: SIZES[name] for name in ("200 KiB", "5 MiB")})


def packed_files(build):
    """A file for each entry of the configuration directory that a full snapshot packs."""
    table = subprocess.check_output([build / "source/print-contents"], text=True)
    entries = (line.split("\t") for line in table.splitlines())
    return [path.replace("*", "1") for path, base, types, *_ in entries
            if base == "config" and "full" in types]


def install(build, prefix):
    """Returns where the programs are."""
    for component in ("kelmor-platform", "confsave-library", "confsave-program", "confsave-benchmarks"):
        subprocess.run(["cmake", "--install", build, "--prefix", prefix, "--component", component],
                       check=True, stdout=subprocess.DEVNULL)
    return prefix / "bin"


class Bench:
    """A gateway in a temporary directory, and the programs of ConfSave that work on it."""

    def __init__(self, build):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="confsave-bench-"))
        programs = install(build, self.root / "installed")
        self.program, self.host, self.typed_host = (
            str(programs / name) for name in ("confsave", "bench-host", "bench-typed"))
        self.config, self.state, self.target = (self.root / name for name in ("config", "state", "target"))
        self.files = packed_files(build)
        self.real = real_files()
        for name in ("config", "state", "tmp", "target"):
            (self.root / name).mkdir()

    def start(self, *words, cwd=None, **environment):
        environment = {**os.environ, "KELMOR_CONFIG_PATH": f"{self.config}/", "LC_ALL": "C",
                       "KELMOR_DYNAMIC_DIR": str(self.state), "KELMOR_TEMP_DIR": f"{self.root}/tmp",
                       "KELMOR_LOG_LEVEL": "0", "FILES": " ".join(self.files), **environment}
        return subprocess.Popen(list(map(str, words)), env=environment, cwd=cwd, stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def run(self, *words, **how):
        """Returns how many seconds a command takes."""
        start = time.perf_counter()
        if self.start(*words, **how).wait() != 0:
            sys.exit(f"bench: failed: {' '.join(map(str, words))}: run it by hand to see why")
        return time.perf_counter() - start

    def figures(self, host, *words, **environment):
        """What one of the hosts measures within its process."""
        file = self.root / "figures"
        self.run(host, *words, BENCH_FIGURES=str(file), BENCH_FILES=str(self.root / "names"), **environment)
        return json.loads(file.read_text())

    def contract_ways(self, *words):
        """The same work by hand, by the contract library with gzip, and as it is."""
        return {"by hand": lambda: self.run(HERE / "floor", *words),
                "contract library, gzip": lambda: self.run(self.host, *words, KELMOR_GZIP=GZIP),
                "contract library": lambda: self.run(self.host, *words)}

    def confsave(self, *words):
        return lambda: self.run(self.program, *words)

    def save(self, wait=0):
        """A storage with one snapshot. Files that changed within the last seconds are not known by it."""
        self.clear(self.state)
        time.sleep(wait)
        self.run(self.program, "save", "weekly")

    @staticmethod
    def clear(directory):
        shutil.rmtree(directory, ignore_errors=True)
        directory.mkdir()

    def make_configuration(self, size):
        """Real files of this machine, arranged as a gateway's; a copy of them stays in "original"."""
        self.clear(self.config)
        share = size // len(self.files)
        files = iter(self.real)
        for name in self.files:
            path = self.config / name
            path.parent.mkdir(exist_ok=True)
            with open(path, "wb") as out:
                while out.tell() < share:
                    out.write(next(files).read_bytes()[:share - out.tell()])
        (ETC / "failover.ini").write_bytes(self.real[0].read_bytes()[:2000])
        live = [path for root in (self.config, ETC) for path in root.rglob("*") if path.is_file()]
        (self.root / "names").write_text("".join(f"{path}\n" for path in live))
        shutil.rmtree(self.root / "original", ignore_errors=True)
        shutil.copytree(self.config, self.root / "original")

    def enter(self, name):
        """Gives the state directory this name. In one of its own a way meets no rows of others."""
        self.state = self.root / name
        self.state.mkdir(exist_ok=True)

    def enter_copy(self, name, anew=False):
        """In its copy of the state directory a way meets no rows, and no loads, of others."""
        copy = self.root / "copies" / name
        if anew:
            shutil.rmtree(copy, ignore_errors=True)
        if not copy.exists():
            shutil.copytree(self.root / "state", copy)
        self.state = copy

    def leave_copies(self):
        shutil.rmtree(self.root / "copies", ignore_errors=True)
        self.state = self.root / "state"

    def change_a_line(self):
        with open(self.config / self.files[0], "ab") as out:
            out.write(b"one line more %d\n" % time.time_ns())

    def renew(self):
        """A new tree, with the same files."""
        shutil.rmtree(self.config)
        shutil.copytree(self.root / "original", self.config)

    def damage(self):
        """Each time in another way: a configuration that is stored already would not be kept again."""
        for name in self.files[::10]:
            path = self.config / name
            path.write_bytes(path.read_bytes().swapcase() + b"damaged %d\n" % time.time_ns())

    def check_restored(self, name, tree):
        """Ends the run unless each file has its original bytes."""
        for original in (self.root / "original").rglob("*"):
            restored = tree / original.relative_to(self.root / "original")
            if original.is_file() and not (restored.is_file() and
                                           filecmp.cmp(original, restored, shallow=False)):
                sys.exit(f"bench: {name} has not restored {restored}: its time means nothing; see why")

    def fill(self, count, kibibytes):
        self.clear(self.state)
        self.run(self.host, "fill", count, kibibytes)


@functools.cache
def real_files():
    """Many, in a fixed order: text of /etc and /usr/share first, then anything."""
    return [path for root in ("/etc", "/usr/share", "/usr/include", "/usr/lib/python3")
            for path in sorted(pathlib.Path(root).rglob("*"))
            if path.is_file() and not path.is_symlink() and os.access(path, os.R_OK)
            and 200 < path.stat().st_size < 2_000_000][:6000] * 20


def quartiles(values):
    low, middle, high = statistics.quantiles(values, n=4) if len(values) > 1 else values * 3
    return {"median": round(middle, 7), "low": round(low, 7), "high": round(high, 7), "rounds": len(values)}


class Turns:
    """Ways take turns, in an order that is drawn anew for each round.

    Before each of them everything written so far is synced: nobody pays for the way before. The first
    round does not count.
    """

    def __init__(self, effort, seed):
        self.effort, self.order = effort, random.Random(seed)

    def take(self, ways, prepare=lambda name: None, check=lambda name: None):
        """ways: name -> function that returns seconds. `check` follows each way in the first round."""
        times = {name: [] for name in ways}
        for number in range(self.effort.most + 1):
            names = [name for name in ways if self.goes_on(times[name])]
            self.order.shuffle(names)
            for name in names:
                prepare(name)
                os.sync()
                seconds = ways[name]()
                if number > 0:
                    times[name].append(seconds)
                else:
                    check(name)
        return {name: quartiles(values) for name, values in times.items()}

    def goes_on(self, times):
        return len(times) < self.effort.least or sum(times) < self.effort.seconds


def show(title, rows, base):
    """rows: label -> name -> quartiles of seconds. Ratios are to `base`."""
    RESULTS["tables"][title] = {"base": base, "rows": rows}
    print(f"\n{title}")
    for label, ways in rows.items():
        for name, way in ways.items():
            ratio = f"{way['median'] / ways[base]['median']:6.2f}" if base in ways else ""
            print(f"  {label:<9} {name:<24} {way['median'] * 1000:10.2f} ms  "
                  f"[{way['low'] * 1000:.2f} … {way['high'] * 1000:.2f}] {ratio}", flush=True)


def note(label, text, value=None):
    """A figure without a base."""
    RESULTS["figures"][label] = {"text": text, "value": value}
    print(f"  {label}: {text}", flush=True)
