"""What the libraries cost by themselves: their own part, memory, contention and commands."""

import os
import re
import sqlite3
import statistics
import subprocess
import sys
import time

from beside import forget_notes
from measuring import SIZES, note


def own_part(bench, rounds):
    bench.make_configuration(SIZES["5 MiB"])
    bench.clear(bench.state)
    print("\nthe contract library's own part (all but commands and syncs)")
    for words in (("save", "weekly"), ("load", "weekly", f"{bench.target}/")):
        figures = [bench.figures(bench.host, *words) for _ in range(rounds)]
        own = statistics.median(f["all"] - f["commands"] - f["syncs"] for f in figures)
        note(f"the contract library's own part of a {words[0]} of 5 MiB",
             f"{own * 1000:.1f} ms; memory grows by {max(f['memory'] for f in figures):,} KiB")
    connection = sqlite3.connect(bench.state / "storage.db")
    size = connection.execute("select length(keybase) + length(etc) from Config").fetchone()[0]
    connection.close()
    note("bytes stored for 5 MiB", f"{size:,}")


def memory(bench):
    """Beyond a process that only opens the storage."""
    grown = {}
    for label in ("200 KiB", "50 MiB"):
        bench.make_configuration(SIZES[label])
        bench.clear(bench.state)
        bench.run(bench.program, "save", "weekly")
        opened = bench.figures(bench.typed_host, "open")["peak"]
        for verb in ("show", "diff", "verify", "restore", "save"):
            forget_notes(bench)
            bench.damage()
            peak = bench.figures(bench.typed_host, verb, "weekly")["peak"]
            grown.setdefault(verb, []).append((peak - opened) / 1024)
    for verb, (small, large) in grown.items():
        note(f"peak memory of {verb} beyond an opened storage",
             f"{small:.1f} MiB at 200 KiB, {large:.1f} MiB at 50 MiB", large)
    connection = sqlite3.connect(bench.state / "storage.db")
    size = connection.execute("select length(keybase) + length(etc) from Config").fetchone()[0]
    connection.close()
    note("archives of 50 MiB", f"{size / (1 << 20):.1f} MiB", size / (1 << 20))


def parts(bench, rounds):
    """Where the time of a save and of a restore goes, from the program's log."""
    log = bench.root / "log"
    for label in ("200 KiB", "5 MiB"):
        bench.make_configuration(SIZES[label])
        bench.save(3)
        for what, words in {"save": ("save", "weekly", "--force"),
                            "restore": ("load", "weekly", "--yes", "--no-keep")}.items():
            found = {}
            for _ in range(rounds):
                if what == "restore":
                    bench.damage()
                os.sync()
                log.unlink(missing_ok=True)
                bench.run(bench.program, *words, KELMOR_LOG_LEVEL="4", KELMOR_LOG_FILE=str(log))
                line = re.search(f"text={what}: (.*) ms", log.read_text(encoding="utf-8")).group(1)
                for name, value in (part.rsplit(None, 1) for part in line.split(", ")):
                    found.setdefault(name, []).append(float(value))
            note(f"parts of a {what} of {label}, in ms",
                 ", ".join(f"{name} {statistics.median(values):.2f}" for name, values in found.items()))


def contention(bench, seconds):
    bench.make_configuration(SIZES["200 KiB"])
    print("\ncontention, 200 KiB")
    for count in (1, 2, 4, 8):
        bench.clear(bench.state)
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
