#!/usr/bin/env python3
"""Fills the disk and breaks it, under the archives and under the database.

    disk.py OPERATE [--full] [--seed=N]

No archive is stored that is not whole, no row is lost, and the database stays sound. When packing alone
fails, the save says so; a statement that SQLite refuses is in the log only. Each system call of the host on
a file of the gateway fails once, and each of tar and gzip. A run that hits no file of some sort fails.
"""

import collections
import itertools
import re
import subprocess

from gateway import ETC, Gateway, main, require
from stored import require_stored

CALLS = ["openat", "read", "write", "pread64", "pwrite64", "fsync", "fdatasync", "ftruncate", "unlink"]


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
    limits = list(range(largest + 2)) if full else source.sample(range(largest), 12)
    # How well gzip packs depends on the pieces that tar passes to it.
    limits.append(2 * largest)
    succeeded = 0
    for limit in limits:
        status, _ = gateway.run("save", "weekly", FSIZE=limit, COMMAND="cd ")
        check(gateway, "new" if status == 0 else "old")
        require(not list(gateway.temp.iterdir()), "left behind at limit", limit)
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
            _, output = gateway.run(("save", "typed-save")[size % 2], "weekly")
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


SORTS = ["storage.db", "journal", "notes", "archive", "configuration"]


def sort_of(gateway, line):
    """Which file a traced call is about."""
    for sort, path in (("journal", f"{gateway.database}-journal"), ("storage.db", gateway.database),
                       ("notes", f"{gateway.state}/notes.db"),
                       ("archive", f"{gateway.temp}/"), ("configuration", f"{gateway.config}"),
                       ("configuration", f"{ETC}")):
        if str(path) in line.split(" = ")[0]:
            return sort
    return None


def tracer(gateway, *words):
    """Appends, for there are two tars to a snapshot."""
    return ["strace", "-A", "-y", "-qq", "-o", str(gateway.root / "trace"), *words]


def traced_lines(gateway):
    """The calls, each in one line although another process came in between."""
    begun, lines = {}, []
    for line in (gateway.root / "trace").read_text("latin-1").splitlines():
        process = line.split(" ")[0]
        if line.endswith(" <unfinished ...>"):
            begun[process] = line.removesuffix(" <unfinished ...>")
        else:
            lines.append(re.sub(r"^\d+ +<\.\.\. \w+ resumed>", lambda _, p=process: begun.pop(p), line))
    return lines


def calls_on_files(gateway, words, prefix):
    """(sort of file, call, its number among the calls of that name) of an undisturbed operation."""
    (gateway.root / "trace").unlink(missing_ok=True)
    gateway.do(*words, prefix=prefix("-e", "trace=" + ",".join(CALLS)))
    gateway.restore_state()
    gateway.write_configuration("new")
    found, counts = [], collections.Counter()
    for line in traced_lines(gateway):
        match = re.match(r"(?:(\d+) +)?(\w+)\(", line)
        if match:
            counts[match.groups()] += 1
            sort = sort_of(gateway, line)
            if sort is not None:
                found.append((sort, match.group(2), counts[match.groups()]))
    return sorted(set(found))


def wrap_tar(gateway):
    """A tar that can be traced without the host: only its own calls, and those of gzip, fail."""
    directory = gateway.root / "bin"
    directory.mkdir()
    (directory / "tar").write_text('#!/bin/sh\nexec ${TRACER-} /usr/bin/tar "$@"\n')
    (directory / "tar").chmod(0o755)
    return directory


def may_hold(gateway, hit):
    """The contents that may be found. What tar cannot open is left out, as quirk Q31 says; what it cannot
    read is zeros, or cut."""
    new = gateway.expected_files("new")
    allowed = [gateway.expected_files("old"), new]
    struck = [name for name in new if any(f'"{name}"' in line or f"/{name}>" in line for line in hit)]
    for lost in itertools.product(*[(None, new[name], bytes(len(new[name]))) for name in struck]):
        found = {**new, **dict(zip(struck, lost))}
        allowed.append({name: contents for name, contents in found.items() if contents is not None})
    return allowed


def strike(gateway, words, call, number, error, prefix):
    """Lets one call fail. The sorts of files that were hit, and whether a snapshot lacks a file of it."""
    injection = f"inject={call}:error={error}:when={number}"
    (gateway.root / "trace").unlink()
    status, _ = gateway.run(*words, prefix=prefix("-e", f"trace={call}", "-e", injection))
    hit = [line for line in traced_lines(gateway) if "INJECTED" in line]
    gateway.remove_temporary_files()
    gateway.remove_scratch_directories()
    try:
        allowed = may_hold(gateway, hit if words[0] == "save" else [])
        found = require_stored(gateway, {"kept": allowed[:1], "weekly": allowed},
                               may_be_missing=["weekly"] if words[0] == "typed-remove" else [])
        if words[0] == "typed-remove":
            require(("weekly" in found) == (status != 0), "ended with", status, "and left", list(found))
        gateway.do("typed-verify")
        gateway.require_whole_files("old", "new")
    except Exception as failure:
        raise type(failure)(f"{words} {call} {number} {error}: {failure}; {hit}") from failure
    gateway.restore_state()
    gateway.write_configuration("new")
    return [sort_of(gateway, line) for line in hit], found.get("weekly", allowed[0]) not in allowed[:2]


def system_calls(gateway, full, source):
    """How often each sort of file was hit."""
    hits, incomplete = collections.Counter(), 0
    path = wrap_tar(gateway)

    def of_host(*words):
        return tracer(gateway, *words)

    def of_tar(*words):
        traced = " ".join(tracer(gateway, "-f", *words))
        return ["env", f"PATH={path}:/usr/bin:/bin", f"TRACER={traced}"]

    for verb, prefix in (("save", of_host), ("save", of_tar), ("load", of_host), ("typed-save", of_host),
                         ("typed-remove", of_host)):
        words = [verb, "weekly"]
        calls = calls_on_files(gateway, words, prefix)
        require(calls, words, "has no calls on files")
        if not full:
            source.shuffle(calls)
            firsts = {sort: (sort, call, number) for sort, call, number in calls}
            calls = [*firsts.values(), *calls[:2]]
        for _, call, number in calls:
            for error in ("ENOSPC", "EIO") if full else (source.choice(["ENOSPC", "EIO"]),):
                struck, lacks = strike(gateway, words, call, number, error, prefix)
                hits.update(struck)
                incomplete += lacks
    for sort in SORTS:
        require(hits[sort] > 0, "no failed call on a file of sort", sort, hits)
    return ", ".join(f"{hits[sort]} on {sort}" for sort in SORTS), incomplete


def campaign(program, full, source):
    with Gateway(program) as gateway:
        prepare(gateway)
        limits, room = packing(gateway, full, source), sizes(gateway, full, source)
        hits, incomplete = system_calls(gateway, full, source)
    return (f"{limits} packing limits, {room} file system sizes, failed system calls: {hits}; "
            f"nothing lost, {incomplete} snapshots lack a file that tar could not read")


main(campaign)
