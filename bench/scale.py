#!/usr/bin/env python3
"""Measures the program far beyond what a gateway has, up to where it refuses, and prints it as Markdown.

    scale.py BUILD OUT

100,000 snapshots; a storage of 20 GB; a configuration of 100,000 files, and of more than the limit; one
file of 900 MB, and of more than SQLite stores. Each answer is checked. Run by script/bench --scale; needs
45 GB.
"""

import json
import os
import pathlib
import shutil
import subprocess
import sys
import time

from measuring import Bench
from page import heading, row

ROWS, LARGE, LARGE_ROWS, FILES, TOO_MANY = 100_000, 1024, 20_000, 100_000, 250_001
BIG, TOO_BIG = 900_000_000, 1_100_000_000
LINES = []


class Scale:
    def __init__(self, build):
        self.bench = Bench(build)
        self.root = self.bench.root
        self.environment = {**os.environ, "KELMOR_CONFIG_PATH": f"{self.bench.config}/", "LC_ALL": "C",
                            "KELMOR_DYNAMIC_DIR": str(self.bench.state),
                            "KELMOR_TEMP_DIR": f"{self.root}/tmp", "KELMOR_LOG_LEVEL": "0"}
        self.rows = []

    def run(self, *words, status=0, expect=""):
        """Keeps the seconds and the most memory of a command, and returns what it printed."""
        peak = self.root / "peak"
        # What wait4() says of a child's memory includes that of the process that has started it.
        command = ["/usr/bin/time", "--quiet", "--format=%M", f"--output={peak}", self.bench.program,
                   *words]
        start = time.perf_counter()
        done = subprocess.run(command, env=self.environment, stdin=subprocess.DEVNULL, check=False,
                              capture_output=True, text=True)
        seconds = time.perf_counter() - start
        message = done.stderr.strip()
        if done.returncode != status or expect not in message:
            sys.exit(f"scale: {' '.join(words)} exited with {done.returncode}: {message}")
        said = message.replace(str(self.root), "").split("\n")[-1] if status == 1 else ""
        name = " ".join(words).replace(str(self.root), "")
        self.rows.append((f"`{name}`", f"{seconds:,.2f}", f"{int(peak.read_text()) / 1024:,.0f}",
                          f"refused: {said}" if said else ""))
        return done.stdout

    def finish(self, title):
        section = [f"**{title}**", "", *heading("command", "seconds", "MiB of memory", "")]
        section += [*(row(*cells) for cells in self.rows), ""]
        print("\n".join(section), flush=True)
        LINES.extend(section)
        self.rows = []

    def storage(self):
        return self.root / "state/storage.db"

    def begin(self):
        self.bench.clear(self.bench.state)
        self.bench.make_configuration(200 << 10)


def many_rows(scale, title, count, kibibytes):
    scale.begin()
    scale.bench.fill(count, kibibytes)
    scale.run("save", "weekly", "--comment", "the last one")
    assert len(scale.run("list", "--all").splitlines()) >= count
    scale.run("list")
    assert json.loads(scale.run("status", "--json", status=9))["snapshots"] == count + 1
    assert json.loads(scale.run("show", "weekly", "--json"))["members"]
    scale.run("diff", "weekly")
    (scale.root / "config/user/filter.conf").write_text("damaged\n")
    scale.run("load", "weekly", "--yes", "--no-keep")
    scale.run("diff", "weekly")
    scale.run("delete", "name7", "--force")
    kept = count // 2
    deleted = json.loads(scale.run("prune", "--keep", str(kept), "--match", "name*", "--json"))["deleted"]
    assert len(deleted) == count - 1 - kept, len(deleted)
    scale.run("verify", "weekly")
    scale.finish(f"{title}: {scale.storage().stat().st_size / 1e9:,.1f} GB at the end")


def many_files(scale):
    scale.begin()
    station = scale.root / "config/station"
    station.unlink(missing_ok=True)
    for number in range(FILES):
        path = station / str(number // 1000) / str(number)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(f"file {number}\n")
    time.sleep(3)
    scale.run("save", "weekly")
    scale.run("diff", "weekly")
    scale.run("save", "daily", "--if-changed")
    for number in range(0, FILES, 10):
        (station / str(number // 1000) / str(number)).write_text("damaged\n")
    scale.run("load", "weekly", "--dry-run", status=9)
    scale.run("load", "weekly", "--yes", "--no-keep")
    scale.run("diff", "weekly")
    scale.run("verify", "weekly")
    assert len(json.loads(scale.run("show", "weekly", "--json"))["members"]) > FILES
    for number in range(FILES, TOO_MANY):
        path = station / str(number // 1000) / str(number)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(f"file {number}\n")
    scale.run("save", "more", status=1, expect="at most 250000 files")
    notes = (scale.root / "state/notes.db").stat().st_size
    scale.finish(f"{FILES:,} files, then {TOO_MANY:,}: {notes / 1e6:,.0f} MB of notes")
    shutil.rmtree(station)


def big_file(scale):
    scale.begin()
    big = scale.root / "config/linkmap.dat"

    def write(size):
        with open("/dev/urandom", "rb") as source, open(big, "wb") as out:
            for _ in range(size // 1_000_000):
                out.write(source.read(1_000_000))

    write(BIG)
    time.sleep(3)
    scale.run("save", "weekly")
    scale.run("diff", "weekly")
    with open(big, "r+b") as out:
        out.write(b"damaged")
    scale.run("load", "weekly", "--yes", "--no-keep")
    scale.run("diff", "weekly")
    scale.run("verify", "weekly")
    write(TOO_BIG)
    scale.run("save", "more", status=1)
    assert "weekly" in scale.run("list") and "more" not in scale.run("list")
    sizes = f"{BIG / 1e6:,.0f} MB that cannot be compressed, then of {TOO_BIG / 1e6:,.0f} MB"
    scale.finish(f"One file of {sizes}")


def main():
    build, out = (pathlib.Path(word).resolve() for word in sys.argv[1:3])
    scale = Scale(build)
    try:
        big_file(scale)
        many_files(scale)
        many_rows(scale, f"{ROWS:,} snapshots of 1 KiB", ROWS, 1)
        many_rows(scale, f"{LARGE_ROWS:,} snapshots of 1 MiB", LARGE_ROWS, LARGE)
    finally:
        shutil.rmtree(scale.root, ignore_errors=True)
    out.mkdir(parents=True, exist_ok=True)
    (out / "scale.md").write_text("\n".join(LINES), encoding="utf-8")


main()
