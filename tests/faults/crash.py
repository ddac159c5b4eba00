#!/usr/bin/env python3
"""Cuts the power in the middle of an overwrite, or a deletion.

    crash.py OPERATE [--full] [--seed=N]

The system calls of one overwrite, by either library, on the state directory are recorded, of a small
snapshot and of one that SQLite's cache does not hold; and those of a deletion. A state after a power cut is
what a prefix of them leaves: whatever a sync covered is there, and of the rest an arbitrary part, a write
maybe torn at a sector. In each state the library lists and loads first, then the program, each from a copy
of its own: both find the old snapshot or both the new one, whole, or none after a deletion. Only then the
database itself is looked at, and the second library verifies all.
"""

import hashlib
import re
import shutil

from gateway import Gateway, has_hot_journal, main, require
from stored import require_stored

CALLS = "openat,pwrite64,write,fsync,fdatasync,unlink,ftruncate,close"
SECTOR = 512


def unescape(text):
    return text.encode("latin-1").decode("unicode_escape").encode("latin-1")


def record(gateway, verb):
    """The calls on files of the state directory: (kind, file, ...), in order."""
    trace = gateway.root / "trace"
    gateway.do(verb, "weekly",
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

    def __init__(self, state):
        self.durable = {str(path): bytearray(path.read_bytes()) for path in state.iterdir()}
        self.directory = str(state)
        self.nameless = {}  # contents that were synced before the directory that has the name
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
        if name == self.directory:
            covered = [call for call in self.pending if call[0] in ("create", "unlink")]
            files = self.durable
        else:
            covered = [call for call in self.pending
                       if call[1] == name and call[0] in ("write", "truncate")]
            files = self.nameless if ("create", name) in self.pending else self.durable
            files.setdefault(name, bytearray())
        for call in covered:
            self.apply(files, call)
        done = set(map(id, covered))
        self.pending = [call for call in self.pending if id(call) not in done]

    def apply(self, files, call, source=None):
        kind, name = call[0], call[1]
        if kind == "create":
            files.setdefault(name, bytearray(self.nameless.get(name, b"")))
        elif kind == "unlink":
            files.pop(name, None)
        elif name in files:
            contents = files[name]
            if kind == "truncate":
                contents[:] = contents[:call[2]].ljust(call[2], b"\0")
                return
            offset, data = call[2], call[3]
            if source is not None and source.random() < 0.2:
                data = data[:source.randrange(0, len(data) + 1, SECTOR)]
            if len(contents) < offset:
                contents.extend(bytes(offset - len(contents)))
            contents[offset:offset + len(data)] = data

    def after_power_cut(self, source, chance):
        """One of the states that may be found afterwards: each pending call done with this chance."""
        files = {name: bytearray(contents) for name, contents in self.durable.items()}
        for call in self.pending:
            if source.random() < chance:
                self.apply(files, call, source if 0 < chance < 1 else None)
        return files


class Overwrite:
    """The power cuts in one overwrite, or one deletion."""

    def __init__(self, gateway, verb, size):
        gateway.write_configuration("old", 8000)
        self.may_be_missing = ["weekly"] if verb == "typed-remove" else []
        for name in ("kept", "weekly"):
            gateway.do("typed-save" if self.may_be_missing else verb, name)
        self.gateway = gateway
        self.disk = Disk(gateway.state)
        old, new = gateway.expected_files("old", 8000), gateway.expected_files("new", size)
        self.expected = {"kept": [old], "weekly": [old] if self.may_be_missing else [old, new]}
        gateway.write_configuration("new", size)
        self.calls = record(gateway, verb)
        require(any(call[0] == "sync" for call in self.calls), "nothing was synced")
        self.seen, self.states, self.found, self.hot = set(), 0, [0, 0], 0

    def states_along(self, source, chances, share):
        """Cuts the power after this share of the calls."""
        disk = Disk(self.gateway.state)
        disk.durable = {name: bytearray(contents) for name, contents in self.disk.durable.items()}
        for position in range(len(self.calls) + 1):
            if position in (0, len(self.calls)) or source.random() < share:
                for chance in chances:
                    self.cut(disk.after_power_cut(source, chance), position)
            if position < len(self.calls):
                disk.call(self.calls[position])

    def cut(self, files, position):
        self.states += 1
        key = hashlib.sha256(repr(sorted(files.items())).encode()).digest()
        if key in self.seen:
            return
        self.seen.add(key)
        state = self.gateway.root / "after"
        shutil.rmtree(state, ignore_errors=True)
        state.mkdir()
        for name, contents in files.items():
            (state / name.rsplit("/", 1)[1]).write_bytes(contents)
        self.hot += has_hot_journal(state)
        try:
            stored = require_stored(self.gateway, self.expected, ["weekly"], self.may_be_missing, state)
            self.gateway.do("typed-verify", prefix=["env", f"KELMOR_DYNAMIC_DIR={state}"])
        except Exception as failure:
            raise type(failure)(f"after call {position} of {len(self.calls)}: {failure}") from failure
        self.found[stored.get("weekly") != self.expected["weekly"][0]] += 1

    def figures(self):
        require(self.hot > 0, "no state had a hot journal")
        require(min(self.found) > 0, "old and new were not both seen:", self.found)
        return (f"{len(self.calls)} calls, {self.states} states of which {len(self.seen)} differ and "
                f"{self.hot} have a hot journal: {self.found[0]} with the old snapshot, "
                f"{self.found[1]} with {'none' if self.may_be_missing else 'the new one'}")


def campaign(program, full, source):
    figures = []
    for verb, size, wanted, share in (
            ("save", 12000, 6000 if full else 150, 1.0 if full else 0.2),
            ("save", 300000, 300 if full else 12, 0.02 if full else 0.002),
            ("typed-save", 12000, 3000 if full else 80, 1.0 if full else 0.1),
            ("typed-remove", 12000, 2000 if full else 50, 1.0 if full else 0.1)):
        with Gateway(program) as gateway:
            overwrite = Overwrite(gateway, verb, size)
            overwrite.states_along(source, (0.0, 1.0), share)
            while overwrite.states < wanted:
                overwrite.states_along(source, (source.choice([0.2, 0.5, 0.8, 0.95]),), share)
            figures.append(f"{verb}, {size * 12 // 1000} kB: {overwrite.figures()}")
    return "; ".join(figures)


main(campaign)
