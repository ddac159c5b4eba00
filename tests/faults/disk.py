#!/usr/bin/env python3
"""Fills the disk and breaks it, under the archives and under the database.

    disk.py OPERATE [--full] [--seed=N]

No archive is stored that is not whole, no row is lost, and the database stays sound. When packing alone
fails, the save says so; a statement that SQLite refuses is in the log only.
"""

import subprocess

from gateway import Gateway, main, require

CALLS = "write,pwrite64,fsync,fdatasync,openat,ftruncate,unlink"


def prepare(gateway):
    gateway.write_configuration("old")
    gateway.do("save", "kept")
    gateway.do("save", "weekly")
    gateway.write_configuration("new")
    gateway.keep_state()


def check(gateway, *contents):
    gateway.require_integrity()
    gateway.require_loads("kept", "old")
    gateway.require_loads("weekly", *contents)


def packing(gateway, full, source):
    """Archives that can be written up to some byte only."""
    largest = max(gateway.query("select max(length(keybase), length(etc)) from Config"))[0]
    limits = range(largest + 2) if full else source.sample(range(largest), 12) + [largest + 1]
    succeeded = 0
    for limit in limits:
        status, _ = gateway.run("save", "weekly", FSIZE=limit, COMMAND="cd ")
        check(gateway, "new" if status == 0 else "old")
        require(not list(gateway.scratch.iterdir()), "left behind at limit", limit)
        succeeded += status == 0
        gateway.restore_state()
    require(succeeded >= 1, "no limit was large enough")
    require(succeeded < len(limits), "no limit was small enough")
    return len(limits)


def sizes(gateway, full, source):
    """A file system with room for the old rows and some more."""
    small = gateway.root / "small"
    small.mkdir()
    pages = gateway.database.stat().st_size // 4096 + 1
    chosen = range(pages, pages + 240) if full else source.sample(range(pages, pages + 240), 10)
    gateway.write_configuration("new", 20000)
    kept, old = gateway.query("select name, keybase, etc from Config order by name")
    new = 0
    state = gateway.state
    for size in chosen:
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size * 4}k", "tmpfs", small], check=True)
        try:
            (small / "storage.db").write_bytes((gateway.root / "kept" / "storage.db").read_bytes())
            gateway.state, gateway.database = small, small / "storage.db"
            _, output = gateway.run("save", "weekly")
            gateway.require_integrity()
            rows = gateway.query("select name, keybase, etc from Config order by name")
            require([row[0] for row in rows] == ["kept", "weekly"], size, "rows are lost:", output)
            require(rows[0] == kept, size, "a row changed:", output)
            if rows[1] != old:
                gateway.require_loads("weekly", "new", size=20000)
                new += 1
        finally:
            gateway.state, gateway.database = state, state / "storage.db"
            subprocess.run(["umount", small], check=True)
    gateway.write_configuration("new")
    require(not full or 0 < new < len(chosen), "the sizes were all too small or all too large:", new)
    return len(chosen)


def system_calls(gateway, full, source):
    """Every so many-th system call of the host and its commands fails."""
    total = 0
    for error in ("ENOSPC", "EIO"):
        numbers = range(1, 400) if full else sorted(source.sample(range(1, 80), 8))
        for number in numbers:
            trace = gateway.root / "trace"
            gateway.run("save", "weekly",
                        prefix=["strace", "-f", "-qq", "-o", str(trace), "-e", f"trace={CALLS}", "-e",
                                f"inject={CALLS}:error={error}:when={number}"])
            check(gateway, "old", "new")
            gateway.restore_state()
            total += 1
            if "INJECTED" not in trace.read_text("latin-1"):
                break
    return total


def campaign(program, full, source):
    with Gateway(program) as gateway:
        prepare(gateway)
        figures = (packing(gateway, full, source), sizes(gateway, full, source),
                   system_calls(gateway, full, source))
    return "%d packing limits, %d file system sizes, %d failed system calls, nothing lost" % figures


main(campaign)
