#!/usr/bin/env python3
"""Cuts the power in the middle of an overwrite.

    crash.py OPERATE [--full] [--seed=N]

The system calls of one overwrite on the state directory are recorded. A state after a power cut is what a
prefix of them leaves: whatever a sync covered is there, and of the rest an arbitrary part, a write maybe
torn at a sector. In each state the database must be sound, and the row the old one or the new one.
"""

import hashlib
import re
import shutil
import sqlite3

from gateway import Gateway, main, require

CALLS = "openat,pwrite64,write,fsync,fdatasync,unlink,ftruncate,close"
SECTOR = 512


def unescape(text):
    return text.encode("latin-1").decode("unicode_escape").encode("latin-1")


def record(gateway):
    """The calls on files of the state directory: (kind, file, ...), in order."""
    trace = gateway.root / "trace"
    gateway.do("save", "weekly",
               prefix=["strace", "-e", f"trace={CALLS}", "-xx", "-s", "100000000", "-o", str(trace)])
    names, calls = {}, []
    for line in trace.read_text("latin-1").splitlines():
        match = re.match(r"(\w+)\((.*)\)\s+= (-?\d+)", line)
        if not match:
            continue
        call, arguments, result = match.group(1), match.group(2), int(match.group(3))
        paths = [unescape(text).decode("latin-1")
                 for text in re.findall(r'"((?:\\x[0-9a-f]{2})*)"', arguments)]
        if result < 0:
            continue
        if call == "openat":
            names[result] = paths[0]
            if "O_CREAT" in arguments and paths[0].startswith(str(gateway.state)):
                calls.append(("create", paths[0]))
            continue
        if call == "unlink":
            if paths[0].startswith(str(gateway.state)):
                calls.append(("unlink", paths[0]))
            continue
        descriptor = int(arguments.split(",")[0])
        name = names.get(descriptor, "")
        if call == "close":
            names.pop(descriptor, None)
        elif not name.startswith(str(gateway.state)):
            continue
        elif call == "pwrite64":
            data = unescape(re.search(r'"(.*?)"', arguments).group(1))
            calls.append(("write", name, int(arguments.rsplit(",", 1)[1]), data))
        elif call == "ftruncate":
            calls.append(("truncate", name, int(arguments.rsplit(",", 1)[1])))
        elif call in ("fsync", "fdatasync"):
            calls.append(("sync", name))
        else:
            raise AssertionError(line)
    return calls


class Disk:
    """What has been asked for, and how much of it a power cut may take back."""

    def __init__(self, files, directory):
        self.durable = dict(files)
        self.directory = directory
        self.pending = []

    def call(self, call):
        if call[0] == "sync":
            self.sync(call[1])
        elif call[0] != "create" or call[1] not in self.names():
            self.pending.append(call)

    def names(self):
        names = set(self.durable)
        for call in self.pending:
            if call[0] == "create":
                names.add(call[1])
            elif call[0] == "unlink":
                names.discard(call[1])
        return names

    def sync(self, name):
        """A file's sync takes its contents down, the directory's its names."""
        covered = [c for c in self.pending
                   if (c[0] in ("create", "unlink") if name == self.directory
                       else c[1] == name and c[0] in ("write", "truncate"))]
        if name != self.directory:
            created = [c for c in self.pending if c == ("create", name)]
            # The contents are on the disk; the name may not be. They meet when the directory is synced.
            self.hidden(name, covered, bool(created))
        else:
            for call in covered:
                self.apply(self.durable, call)
        self.pending = [c for c in self.pending if c not in covered]

    def hidden(self, name, covered, unnamed):
        contents = bytearray(self.durable.get(name, b"") if not unnamed else self.store.get(name, b""))
        files = {name: bytes(contents)}
        for call in covered:
            self.apply(files, call)
        if unnamed:
            self.store[name] = files[name]
        else:
            self.durable[name] = files[name]

    @property
    def store(self):
        return self.__dict__.setdefault("_store", {})

    def apply(self, files, call, source=None):
        kind, name = call[0], call[1]
        if kind == "create":
            files.setdefault(name, self.store.get(name, b""))
        elif kind == "unlink":
            files.pop(name, None)
        elif name in files:
            contents = bytearray(files[name])
            if kind == "truncate":
                contents = contents[:call[2]].ljust(call[2], b"\0")
            else:
                offset, data = call[2], call[3]
                if source is not None and source.random() < 0.2:
                    data = data[:source.randrange(0, len(data) + 1, SECTOR)]
                contents = contents.ljust(offset + len(data), b"\0")
                contents[offset:offset + len(data)] = data
            files[name] = bytes(contents)

    def after_power_cut(self, source, chance):
        """One of the states that may be found afterwards: each pending call done with this chance."""
        files = dict(self.durable)
        for call in self.pending:
            if source.random() < chance:
                self.apply(files, call, source if 0 < chance < 1 else None)
        return files


def row(database):
    connection = sqlite3.connect(database)
    try:
        integrity = connection.execute("pragma integrity_check").fetchall()
        rows = connection.execute("select name, keybase, etc from Config where name in ('weekly', 'kept') "
                                  "order by name").fetchall()
    finally:
        connection.close()
    return integrity, [(r[0], *(hashlib.sha256(b).hexdigest() for b in r[1:])) for r in rows]


def campaign(program, full, source):
    with Gateway(program) as gateway:
        gateway.write_configuration("old", 8000)
        gateway.do("save", "kept")
        gateway.do("save", "weekly")
        before = {str(path): path.read_bytes() for path in gateway.state.iterdir()}
        old = row(gateway.database)
        gateway.write_configuration("new", 12000)
        calls = record(gateway)
        new = row(gateway.database)
        require(old != new and old[0] == new[0] == [("ok",)], "the overwrite did nothing")
        require(any(c[0] == "sync" for c in calls), "nothing was synced")

        state = gateway.root / "after"
        seen, states, both = set(), 0, [0, 0]
        wanted = 6000 if full else 400
        while states < wanted:
            disk = Disk(before, str(gateway.state))
            for position in range(len(calls) + 1):
                for chance in (0.0, 1.0) if states == 0 else (source.choice([0.2, 0.5, 0.8, 0.95]),):
                    files = disk.after_power_cut(source, chance)
                    states += 1
                    key = hashlib.sha256(repr(sorted(files.items())).encode()).digest()
                    if key in seen:
                        continue
                    seen.add(key)
                    shutil.rmtree(state, ignore_errors=True)
                    state.mkdir()
                    for name, contents in files.items():
                        (state / name.rsplit("/", 1)[1]).write_bytes(contents)
                    found = row(state / "storage.db")
                    require(found in (old, new), "after call", position, "of", len(calls), "the row is",
                            found)
                    both[found == new] += 1
                if position < len(calls):
                    disk.call(calls[position])
    require(min(both) > 0, "old and new were not both seen:", both)
    return (f"{len(calls)} calls, {states} states of which {len(seen)} differ: "
            f"{both[0]} with the old row, {both[1]} with the new one")


main(campaign)
