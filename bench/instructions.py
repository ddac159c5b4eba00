#!/usr/bin/env python3
"""Counts the instructions of the hot paths, by callgrind, and compares them with instructions.txt.

    instructions.py BUILD [--write]

A count does not depend on how busy the machine is. Fails where one is more than a tenth above the table;
--write makes the table anew. Counted is what the process does itself, from the call of the library to its
return, and not the commands that it runs.
"""

import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
ETC = pathlib.Path("/mnt/main/etc")
TABLE = HERE / "instructions.txt"
ALLOWED = 1.1
FILES = 40
# What is counted, and what is done before: files damaged, the notes deleted, more rows. Those that need
# files which are as old as the snapshot come first.
PATHS = [("bench-host", "list", "rows"), ("bench-typed", "open", "rows"),
         ("bench-typed", "diff weekly", ""), ("bench-typed", "save-if-changed weekly", ""),
         ("bench-typed", "diff weekly", "no notes"), ("bench-typed", "verify weekly", ""),
         ("bench-typed", "save weekly", ""), ("bench-typed", "restore weekly", "damage")]


class Gateway:
    """The same files each time, so that the same work is done."""

    def __init__(self, build, root):
        self.build, self.root, self.texts = build, root, []
        self.environment = {**os.environ, "KELMOR_CONFIG_PATH": f"{root}/config/", "LC_ALL": "C",
                            "KELMOR_DYNAMIC_DIR": f"{root}/state", "KELMOR_TEMP_DIR": f"{root}/tmp",
                            "KELMOR_LOG_LEVEL": "0"}
        for name in ("config/user", "state", "tmp"):
            (root / name).mkdir(parents=True)
        source = random.Random(1)
        words = [f"{source.getrandbits(32):x}" for _ in range(2000)]
        for _ in range(FILES):
            self.texts.append("\n".join(" ".join(source.choices(words, k=8)) for _ in range(70)))
        (ETC / "failover.ini").write_text("failover\n")
        self.write_files()
        # A comparison reads files again that changed just before the save.
        time.sleep(3)

    def write_files(self):
        for number, text in enumerate(self.texts):
            self.file(number).write_text(text)

    def file(self, number):
        return self.root / f"config/gw{number}"

    def run(self, program, words, *prefix):
        return subprocess.run([*prefix, self.build / "bench" / program, *words.split()], check=True,
                              env=self.environment, capture_output=True, text=True)

    def prepare(self, what):
        shutil.rmtree(self.root / "state")
        (self.root / "state").mkdir()
        if what == "damage":
            self.write_files()
        self.run("bench-typed", "save weekly")
        if what == "rows":
            self.run("bench-host", "fill 1000 1")
        if what == "damage":
            for number in range(0, FILES, 10):
                self.file(number).write_text("damaged\n")
        if what == "no notes":
            (self.root / "state/notes.db").unlink()

    def count(self, program, words, what):
        self.prepare(what)
        done = self.run(program, words, "valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                        "--toggle-collect=*perform*")
        return int(re.search(r"Collected : (\d+)", done.stderr).group(1))


def read_table():
    lines = (line for line in TABLE.read_text(encoding="utf-8").splitlines() if not line.startswith("#"))
    return {name: int(count) for name, count in (line.rsplit(None, 1) for line in lines)}


def write_table(counts):
    head = "# Written by instructions.py --write. Debian 12, a debug build.\n"
    rows = "".join(f"{name} {count}\n" for name, count in counts.items())
    TABLE.write_text(head + rows, encoding="utf-8")


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    counts = {}
    with tempfile.TemporaryDirectory(prefix="confsave-") as root:
        gateway = Gateway(build, pathlib.Path(root))
        for program, words, what in PATHS:
            counts[" ".join(filter(None, (program, words, what)))] = gateway.count(program, words, what)
    if sys.argv[2:] == ["--write"]:
        write_table(counts)
    before = read_table()
    if before.keys() != counts.keys():
        sys.exit(f"instructions: {TABLE.name} has other paths: run {' '.join(sys.argv[:2])} --write")
    grown = [name for name, count in counts.items() if count > before[name] * ALLOWED]
    for name, count in counts.items():
        print(f"{name:40} {count:12,} {count / before[name]:6.2f}{' more than allowed' * (name in grown)}")
    if any(count < before[name] / 2 for name, count in counts.items()):
        sys.exit("instructions: one is less than half: check that it still does its work, then use --write")
    if grown:
        sys.exit("instructions: find out why, or if it is meant, write the table anew with --write")


main()
