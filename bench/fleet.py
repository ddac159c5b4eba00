#!/usr/bin/env python3
"""Measures what examples/fleet/collect costs for each gateway and night, and prints it as Markdown.

    fleet.py BUILD OUT

Gateways of 200 KiB make an autosave every night and keep fourteen; a collector stores their exports in
restic repositories on the local disk. What the gateways and ssh do is not counted. Run by
script/bench --fleet.
"""

import os
import pathlib
import random
import resource
import shutil
import sqlite3
import subprocess
import sys
import time

from measuring import SIZES, Bench

COLLECT = pathlib.Path(__file__).resolve().parent.parent / "examples/fleet/collect"
NIGHTS, EACH, KEPT, FLEET = 30, 3, 14, 10_000
CROWD = 400
LINES = []


def table(*rows):
    """The first row is the heading."""
    for number, row in enumerate(rows):
        LINES.append("| " + " | ".join(map(str, row)) + " |")
        if number == 0:
            LINES.append("|---" * len(row) + "|")
    LINES.append("")


class Gateway:
    def __init__(self, build, number):
        self.bench = Bench(build)
        self.bench.real = random.Random(number).sample(self.bench.real, len(self.bench.real))
        self.bench.make_configuration(SIZES["200 KiB"])
        self.program = build / "console/confsave"

    def night(self, changes):
        if changes:
            with open(self.bench.root / "config/user/filter.conf", "ab") as out:
                out.write(b"one line more %d\n" % time.time_ns())
        self.bench.run(self.program, "autosave", f"--max={KEPT}", "--if-changed")

    def export(self, file, which):
        with sqlite3.connect(self.bench.root / "state/storage.db") as storage:
            newest, = storage.execute("select name from Config order by id desc").fetchone()
        words = ["--all"] if which == "all" else [newest]
        self.bench.run(self.program, "export", "--force", *words, file)


class Collector:
    """A repository, and the files that its gateways would send."""

    def __init__(self, root):
        self.root, self.sent = root, root / "sent"
        self.sent.mkdir(parents=True)
        self.environment = {**os.environ, "RESTIC_REPOSITORY": str(root / "repository"),
                            "RESTIC_PASSWORD": "x", "RESTIC_CACHE_DIR": str(root / "cache")}
        self.restic("init")

    def run(self, *words):
        """Returns seconds, and seconds of processors."""
        before, start = resource.getrusage(resource.RUSAGE_CHILDREN), time.perf_counter()
        subprocess.run(words, check=True, env=self.environment, stdout=subprocess.DEVNULL)
        seconds, after = time.perf_counter() - start, resource.getrusage(resource.RUSAGE_CHILDREN)
        return seconds, after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime

    def restic(self, *words):
        return self.run("restic", "--quiet", *words)

    def collect(self, jobs, names=None):
        """Returns the same, for each gateway."""
        names = names or sorted(path.name for path in self.sent.iterdir())
        (self.root / "list").write_text("\n".join(names) + "\n", encoding="ascii")
        seconds = self.run(COLLECT, "-j", str(jobs), self.root / "list", "cat", f"{self.sent}/{{}}")
        return [value / len(names) for value in seconds]

    def size(self):
        return sum(path.stat().st_size for path in (self.root / "repository").rglob("*") if path.is_file())


def nights(root, gateways, changes, which):
    """Bytes that are fetched and bytes that are stored, for each gateway and night."""
    collector = Collector(root)
    fetched, first = 0, 0
    for night in range(NIGHTS):
        for number, gateway in enumerate(gateways):
            gateway.night(changes)
            gateway.export(collector.sent / f"gw-{number}", which)
            fetched += (collector.sent / f"gw-{number}").stat().st_size
        collector.collect(2)
        if night == 0:
            first = collector.size()
    collector.restic("check")
    return (fetched // (NIGHTS * len(gateways)), first // len(gateways),
            (collector.size() - first) // ((NIGHTS - 1) * len(gateways)))


def bytes_of_nights(root, build):
    gateways = [Gateway(build, number) for number in range(EACH)]
    for _ in range(KEPT):
        for gateway in gateways:
            gateway.night(True)
    rows = [["each gateway and night", "fetched", "stored the first night", "later", f"{FLEET:,} a day"]]
    for title, changes, which in (("all snapshots, nothing has changed", False, "all"),
                                  ("all snapshots, a line has changed", True, "all"),
                                  ("the newest snapshot, a line has changed", True, "newest")):
        fetched, first, later = nights(root / f"{changes}-{which}", gateways, changes, which)
        rows.append([title, f"{fetched:,}", f"{first:,}", f"{later:,}",
                     f"{fetched * FLEET / 1e9:.1f} GB fetched, {later * FLEET / 1e9:.2f} GB stored"])
    table(*rows)
    for gateway in gateways:
        shutil.rmtree(gateway.bench.root)


def seconds_by_jobs(root):
    """How long a collector takes, by the number of gateways that are served at a time.

    restic makes a key that takes half a second to use, and is misled if the machine is busy meanwhile.
    """
    collectors = [Collector(root / str(number)) for number in range(5)]
    opening, collector = max(((one.restic("cat", "config")[1], one) for one in collectors),
                             key=lambda pair: pair[0])
    rows = [["at a time", "seconds for each", "of one core", f"hours for {FLEET:,}", "with no wait"]]
    source = random.Random(1)
    for jobs in (1, 2, 4, 8):
        for number in range(32):
            (collector.sent / f"gw-{number}").write_bytes(source.randbytes(1 << 20))
        seconds, used = collector.collect(jobs)
        rows.append([jobs, f"{seconds:.2f}", f"{used:.2f}", f"{seconds * FLEET / 3600:.1f}",
                     f"{used * FLEET / 3600 / os.cpu_count():.1f}"])
    table(*rows)
    memory = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    LINES.extend([f"A restic takes up to {memory >> 10} MiB of memory, and {opening:.2f} s of one core to "
                  "open the repository.", ""])


def crowded_repository(root):
    """What becomes slower when a repository has many snapshots."""
    collector, source = Collector(root), random.Random(2)
    rows = [["copies in the repository", "seconds of one core to store", "to dump", "to forget by days"]]
    names = [f"one-{number}" for number in range(4)]
    for crowd in (0, CROWD // 4, CROWD):
        have = rows[-1][0] if len(rows) > 1 else 0
        more = [f"gw-{number}" for number in range(have, crowd)]
        for name in more + names:
            (collector.sent / name).write_bytes(source.randbytes(2000))
        if more:
            collector.collect(4, more)
        ways = (lambda: collector.collect(1, names),
                lambda: collector.restic("dump", "--host=one-0", "latest", "one-0.db"),
                lambda: collector.restic("forget", "--keep-daily=30", "--dry-run"))
        rows.append([crowd, *(f"{min(way()[1] for _ in range(3)):.2f}" for way in ways)])
    table(*rows)


def main():
    build, out = (pathlib.Path(word).resolve() for word in sys.argv[1:3])
    root = out / "fleet"
    shutil.rmtree(root, ignore_errors=True)
    version = subprocess.check_output(["restic", "version"], text=True).split()[1]
    LINES.extend([f"restic {version}; gateways of 200 KiB with {KEPT} autosaves; {NIGHTS} nights, "
                  f"{EACH} gateways in each row; load before the run {os.getloadavg()[0]:.1f}.", ""])
    bytes_of_nights(root, build)
    seconds_by_jobs(root / "jobs")
    crowded_repository(root / "crowd")
    shutil.rmtree(root)
    (out / "fleet.md").write_text("\n".join(LINES), encoding="utf-8")
    print("\n".join(LINES))


main()
