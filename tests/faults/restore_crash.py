#!/usr/bin/env python3
"""Cuts the power in the middle of a restore, and in the middle of the recovery from that.

    restore_crash.py OPERATE [--full] [--seed=N]

The system calls of a restore on the configuration, the failover files and the storage are recorded, each on
a file system of its own. disk_model.py says what a power cut leaves of them. Each state is made with real
files, and the typed library recovers; inodes.cpp lets it see the inode numbers that were recorded. Then
the files are those of before, in the same inodes, or those of after, and only the latter once success was
reported; nothing else is left, and the storage is sound. Recoveries are recorded and cut in the same way.

Each sync is left out of the record in turn: some state must show it. Exceptions are single syncs of SQLite
on files of the state directory, which is careful, and those of staged names, which the exchange needs.
"""

import os
import sqlite3
import subprocess
import sys

from disk_model import Disk, Entries, Sync, described, difference, empty, read_tree, write_tree
from gateway import ETC, Failure, Gateway, main, require
from system_calls import record

STAGING = ".confsave-restore-"
NEW, OLD = 1_600_000_000, 1_500_000_000
# As it begins, SQLite would roll it back.
LOG = b"\xd9\xd5\x05\xf9\x20\xa1\x63\xd7 and a transaction on the new database"
# SQLite deletes a journal when its file is written the next time.
LEFT = {"storage.db", "storage.db-journal", "storage.db-reserve", "notes.db", "notes.db-journal",
        "confsave.lock", "restore.db", "restore.db-journal", "restore.lock"}


class Place(Gateway):
    """A gateway whose three directories are file systems of their own."""

    def __init__(self, program):
        super().__init__(program)
        self.inodes = os.path.join(os.path.dirname(self.program), "inodes.so")
        self.roots = [self.config, ETC, self.state]
        self.can_exchange = self.stamps = True
        self.archives = None
        for root in self.roots:
            subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", root], check=True)

    def __exit__(self, *what):
        for root in self.roots:
            subprocess.run(["umount", "--lazy", root], check=False)
        super().__exit__(*what)

    def injection(self):
        """What strace has to do to make a file system that cannot exchange files."""
        return [] if self.can_exchange else ["-e", "inject=renameat2:error=EINVAL"]

    def recover(self, numbers):
        tracer = ["strace", "-qq", "-o", "/dev/null", "-e", "trace=renameat2", *self.injection()]
        prefix = [] if self.can_exchange else tracer
        return self.run("typed-recover", prefix=prefix + self.with_numbers(numbers))

    def with_numbers(self, numbers):
        file = self.root / "inodes"
        file.write_text("".join(f"{device} {inode} {number}\n"
                                for (device, inode), number in numbers.items()))
        # The runtime of a sanitizer wants to come first, and need not.
        return ["env", f"LD_PRELOAD={self.inodes}", f"FAULT_INODES={file}",
                "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0"]

    def fill(self, entries):
        """(path, content, mode, time): a path that begins with "/" is a failover file; content None is a
        directory, and a pair a link to another path."""
        empty(self.config)
        empty(ETC)
        self.add(entries)

    def add(self, entries):
        directories = []
        for path, content, mode, time in entries:
            place = ETC / path[1:] if path[0] == "/" else self.config / path
            if content is None:
                place.mkdir()
                directories.append((place, mode, time))
            elif content[0] == "link":
                os.link(self.config / content[1], place)
                continue
            elif content[0] == "symlink":
                place.symlink_to(content[1])
                continue
            else:
                place.write_text(content)
            os.chmod(place, mode)
            os.utime(place, ns=(time * 10**9 + 1234, time * 10**9 + 1234))
        for place, _, time in directories:
            os.utime(place, (time, time))


DIRECTORIES = [("user", None, 0o750, OLD), ("hub", None, 0o700, OLD)]
SAVED = DIRECTORIES + [
    ("user/gateway.conf", "old configuration\n" * 90, 0o640, OLD),
    ("user/gateway.key", "old key\n", 0o600, OLD),
    ("user/filter.conf", "old filter\n" * 200, 0o644, OLD),
    ("user/nat.conf", "the same\n", 0o644, OLD),
    ("user/routes.conf", "mode alone\n", 0o600, OLD),
    ("user/users.conf", "time alone\n", 0o644, OLD),
    ("user/config.db", "old database\n", 0o600, OLD),
    ("gw1", "first\n", 0o644, OLD), ("gw2", ("link", "gw1"), 0, 0),
    ("gw3", ("symlink", "gw1"), 0, 0),
    ("station", None, 0o711, OLD), ("station/deep", None, 0o700, OLD),
    ("station/deep/one", "one\n", 0o644, OLD), ("station/two", "two\n", 0o640, OLD),
    ("hub/out", None, 0o700, OLD), ("hub/out/key", "old hub key\n", 0o600, OLD),
    ("hub/old", "was a file\n", 0o600, OLD),
    ("/failover.ini", "old failover\n", 0o644, OLD), ("/failover.ini.crg", "old crg\n", 0o600, OLD)]
LIVE = DIRECTORIES + [
    ("user/gateway.conf", "new configuration\n" * 70, 0o640, NEW),
    ("user/gateway.key", "new key\n", 0o640, NEW),
    ("user/nat.conf", "the same\n", 0o644, OLD),
    ("user/routes.conf", "mode alone\n", 0o666, OLD),
    ("user/users.conf", "time alone\n", 0o644, NEW),
    ("user/config.db", "new database\n", 0o600, NEW), ("user/config.db-journal", "hot\n", 0o600, NEW),
    ("user/config.idx", "new index\n", 0o600, NEW),
    ("gw1", "first changed\n", 0o644, NEW), ("gw3", "no link any more\n", 0o600, NEW),
    ("peer1", None, 0o755, NEW), ("peer1/address", "added\n", 0o644, NEW),
    ("hub/out", "was a directory\n", 0o600, NEW),
    ("hub/old", None, 0o755, NEW), ("hub/old/key", "new hub key\n", 0o600, NEW),
    ("remark", "not of the contents\n", 0o644, NEW),
    ("/failover.ini", "new failover\n", 0o644, NEW), ("/failoverd-config.crg", "added\n", 0o644, NEW)]
TARGET = [("target", None, 0o755, NEW), ("target/user", None, 0o700, NEW),
          ("target/gw1", "in the way\n", 0o644, NEW), ("target/peer7", "more\n", 0o644, NEW),
          ("target/failover.ini", None, 0o755, NEW)]
FILES = {"user", "hub", "user/gateway.conf", "user/filter.conf", "user/routes.conf", "/failover.ini"}
BELOW = {"user", "hub", "station", "station/deep", "station/deep/one", "hub/out", "hub/out/key", "hub/old",
         "hub/old/key", "peer1", "peer1/address", "/failover.ini"}
# What is asked for, which of the paths there are, and whether the file systems can exchange files.
SCENARIOS = {"everything": (["exact", "no-keep"], None, True),
             "files": (["no-keep"], FILES, True),
             "directories": (["exact", "no-keep"], BELOW, True),
             "without exchange": (["exact", "no-keep"], FILES | BELOW, False),
             "kept": ([], FILES, True),
             "checked": (["no-keep", "check=true"], FILES, True),
             "elsewhere": (["exact", "TARGET"], FILES | {"gw1", "gw2"}, True)}


def is_move(event):
    return isinstance(event, Entries) and len(event.changes) == 2


class Operation:
    """What a program did, and the states in which a power cut can leave it."""

    def __init__(self, gateway, recorder, before, after, outcome=None):
        self.gateway, self.recorder, self.events = gateway, recorder, recorder.events
        self.live = [str(root) for root in gateway.roots[:2]]
        self.before, self.after = before, after
        self.outcome = outcome  # what each recovery must find: 0 before, 1 after, or None for either
        self.seen, self.states, self.found = set(), 0, [0, 0]

    def states_along(self, events, source, effort, first=0):
        """Cuts the power after the events: after this share of them, with this share of the single changes
        that are there alone or are missing alone, and with each of the chances for each change."""
        positions, singles, chances = effort
        disk = Disk(self.recorder.start, self.recorder.system_of)
        for position in range(len(events) + 1):
            is_end = position in (0, len(events))
            if position >= first and (is_end or source.random() < positions):
                for chosen, torn in self.parts(disk, source, singles, chances):
                    yield position, disk.after_power_cut(chosen, source if torn else None)
            if position < len(events):
                disk.do(events[position])

    @staticmethod
    def parts(disk, source, singles, chances):
        """Which of the pending changes are there, and whether writes may be torn."""
        pending = list(disk.pending)
        yield [], False
        if not pending:
            return
        yield pending, False
        yield [pending[-1]], False
        for number in pending:
            if source.random() < singles:
                yield [number], False
                yield disk.without(number), False
        for chance in chances:
            yield [number for number in pending if source.random() < chance], True

    def explore(self, source, *efforts):
        for effort in efforts:
            for position, tree in self.states_along(self.events, source, effort):
                self.cut(position, tree)
        return self

    def failure_without(self, number, source):
        """What shows that one sync is left out, or None."""
        events = [*self.events[:number], None, *self.events[number + 1:]]
        kept = self.seen.copy(), self.states, list(self.found)
        try:
            for effort in ((1, 0, ()), (1, 1, ()), (1, 0, (0.3, 0.5, 0.8, 0.95))):
                for position, tree in self.states_along(events, source, effort, number + 1):
                    self.cut(position, tree)
        except Failure as failure:
            return str(failure)
        finally:
            self.seen, self.states, self.found = kept
        return None

    def is_spare(self, number):
        """Whether the rest may make up for this sync."""
        path = self.events[number].text.split(" ")[1]
        begun = any(is_move(event) for event in self.events[:number])
        return path.startswith(str(self.gateway.state)) or STAGING in os.path.basename(path) and not begun

    def leave_out(self, source, numbers):
        """Leaves out these syncs, one at a time. How many were noticed, and how many not. A recovery finds
        some files in their places, and syncs them all the same."""
        noticed = missed = 0
        for number in numbers:
            failure = self.failure_without(number, source)
            may_be_missed = self.outcome is not None or self.is_spare(number)
            require(failure or may_be_missed, "nothing shows that this sync is left out:",
                    self.events[number].text)
            noticed += failure is not None
            missed += failure is None
        return noticed, missed

    def syncs(self, live_only=False):
        return [number for number, event in enumerate(self.events) if isinstance(event, Sync) and
                not (live_only and str(self.gateway.state) in event.text)]

    def cut(self, position, tree):
        """Makes the state, unless it was there already, and recovers."""
        self.states += 1
        outcome = self.outcome
        if outcome is None and position >= self.recorder.said:
            outcome = 1
        key = tree.key(), outcome
        if key in self.seen:
            return
        self.seen.add(key)
        try:
            numbers = write_tree(tree)
            status, output = self.gateway.recover(numbers)
            require(status == 0, "recovery ended with", status, output)
            self.found[self.judge(numbers, outcome)] += 1
        except Failure as failure:
            last = self.events[position - 1].text if position else "the beginning"
            raise Failure(f"after call {position} of {len(self.events)}, {last}: {failure}") from failure

    def judge(self, numbers, outcome):
        """0 if the files are those of before, 1 if they are those of after."""
        tree, _ = read_tree(self.gateway.roots, numbers)
        is_after = described(self.live, tree, False) == described(self.live, self.after, False)
        if not is_after:
            wrong = difference(described(self.live, self.before, True), described(self.live, tree, True))
            require(not wrong, "neither before nor after:", wrong,
                    difference(described(self.live, self.after, False), described(self.live, tree, False)))
        require(outcome in (None, is_after), "the files are those of", "after" if is_after else "before")
        self.judge_state(is_after)
        return int(is_after)

    def judge_state(self, is_after):
        state = self.gateway.state
        left = {path.name for path in state.iterdir()} - LEFT
        require(not left, "left in the state directory:", left)
        require(self.gateway.query("pragma integrity_check") == [("ok",)], "the storage is damaged")
        rows = self.gateway.query("select name, load_time is not null, keybase, etc from Config")
        weekly = [row[2:] for row in rows if row[0] == "weekly"]
        require(weekly == [self.gateway.archives], "the snapshot is not what it was")
        require(all(row[0] == "weekly" or row[0].startswith("before-load-") for row in rows),
                "rows that nobody stored:", [row[0] for row in rows])
        stamped = [row[1] for row in rows if row[0] == "weekly"] == [1]
        require(stamped == (is_after and self.gateway.stamps), "load time and files differ:", stamped)
        if (state / "restore.db").exists():
            self.judge_journal(state / "restore.db")

    @staticmethod
    def judge_journal(file):
        connection = sqlite3.connect(file)
        try:
            for (table,) in connection.execute("select name from sqlite_master where type = 'table'"):
                require(not connection.execute(f"select * from {table}").fetchall(),
                        "the journal still has a restore")
        finally:
            connection.close()


def begin(gateway, scenario):
    """The configuration as it was saved, a change of it, and the record of the restore."""
    words, paths, gateway.can_exchange = SCENARIOS[scenario]
    target = [f"{gateway.config}/target/"] if "TARGET" in words else []
    for root in gateway.roots:
        empty(root)
    gateway.remove_temporary_files()
    gateway.fill([entry for entry in SAVED if paths is None or entry[0] in paths])
    gateway.do("typed-save", "weekly")
    gateway.archives = gateway.query("select keybase, etc from Config where name = 'weekly'")[0]
    gateway.stamps = not target
    gateway.fill([entry for entry in LIVE if paths is None or entry[0] in paths])
    if target:
        gateway.add(TARGET)
    before, _ = read_tree(gateway.roots)
    words = [word for word in words if word != "TARGET"] + target
    recorder = record(gateway, gateway.roots, "typed-load", "weekly", *words, prefix=gateway.injection())
    after, _ = read_tree(gateway.roots)
    live = [str(root) for root in gateway.roots[:2]]
    wrong = difference(described(live, recorder.now, False), described(live, after, False))
    require(not wrong, "the replay of all calls gives something else:", wrong)
    require(described(live, before, False) != described(live, after, False), "nothing was restored")
    require(recorder.said is not None, "success was not reported")
    return Operation(gateway, recorder, before, after)


class BesideALog(Operation):
    """A recovery that finds a journal of the new database, which the old one must never meet."""

    def judge(self, numbers, outcome):
        tree, _ = read_tree(self.gateway.roots, numbers)
        found = described(self.live, tree, True)
        aside = {path: seen for path, seen in found.items() if STAGING in path}
        wrong = difference(described(self.live, self.before, True),
                           {path: seen for path, seen in found.items() if path not in aside})
        require(not wrong, "not the files of before:", wrong)
        require(LOG in [seen[3] for seen in aside.values()], "the journal is lost:", aside)
        self.judge_state(False)
        return 0


def beside_a_log(operation):
    """All files are exchanged, and a program that has opened the new database was killed."""
    disk = Disk(operation.recorder.start, operation.recorder.system_of)
    moves = [number for number, event in enumerate(operation.events) if is_move(event)]
    for event in operation.events[:moves[-1] + 1]:
        disk.do(event)
    gateway, numbers = operation.gateway, write_tree(disk.after_power_cut(list(disk.pending)))
    (gateway.config / "user/config.db-journal").write_bytes(LOG)
    recorder = record(gateway, gateway.roots, "typed-recover", numbers=numbers,
                      prefix=gateway.with_numbers(numbers))
    result = BesideALog(gateway, recorder, operation.before, operation.after)
    result.outcome = result.judge(numbers, None)
    return result


def recovery(operation, source, when):
    """The record of a recovery from a power cut before (0), during (1) or after (2) the exchange."""
    disk = Disk(operation.recorder.start, operation.recorder.system_of)
    moves = [number for number, event in enumerate(operation.events) if is_move(event)]
    last = source.choice([range(moves[0]), moves, range(moves[-1], len(operation.events))][when])
    for event in operation.events[:last + 1]:
        disk.do(event)
    tree = disk.after_power_cut([number for number in disk.pending if source.random() < 0.7])
    gateway, numbers = operation.gateway, write_tree(tree)
    recorder = record(gateway, gateway.roots, "typed-recover", numbers=numbers,
                      prefix=gateway.injection() + gateway.with_numbers(numbers))
    result = Operation(gateway, recorder, operation.before, operation.after)
    result.outcome = result.judge(numbers, None)
    return result


# Writes files anew, in the process that restores then.
WRITER = """
import os, sys
for path, text, time in eval(sys.argv[1]):
    file = os.open(path, os.O_WRONLY | os.O_TRUNC)
    os.write(file, text.encode())
    os.utime(file, ns=(time, time))
    os.close(file)
os.execv(sys.argv[2], sys.argv[2:])
"""


def others_wrote(gateway, source, damaged):
    """Another program has put back what the snapshot has, and synced nothing: once the restore has found it
    equal, it lasts, whether or not the restore has files to change. How many syncs were left out, and
    noticed."""
    for root in gateway.roots:
        empty(root)
    saved = [entry for entry in SAVED if entry[0] in FILES]
    gateway.fill(saved)
    gateway.do("typed-save", "weekly")
    gateway.archives = gateway.query("select keybase, etc from Config where name = 'weekly'")[0]
    gateway.stamps, gateway.can_exchange = bool(damaged), True
    texts = {path: text for path, text, _, _ in saved}
    files = [(gateway.config / "user/filter.conf", texts["user/filter.conf"]),
             (ETC / "failover.ini", texts["/failover.ini"])]
    written = repr([(str(path), text, OLD * 10**9) for path, text in files])
    for path in [path for path, _ in files] + [gateway.config / name for name in damaged]:
        path.write_text("changed")
    before, _ = read_tree(gateway.roots)
    recorder = record(gateway, gateway.roots, "typed-load", "weekly", "no-keep",
                      prefix=[sys.executable, "-c", WRITER, written])
    after, _ = read_tree(gateway.roots)
    operation = Operation(gateway, recorder, before, after)
    syncs = [number for number in operation.syncs(True)
             if number < recorder.said and operation.events[number].text.startswith("syncfs")]
    require(len(syncs) == len(files), "the restore synced", len(syncs), "file systems")
    for left_out in (None, *syncs):
        events = [None if number == left_out else event for number, event in enumerate(operation.events)]
        failure = None
        try:
            for position, tree in operation.states_along(events, source, (1, 1, (0.3, 0.7)), recorder.said):
                operation.cut(position, tree)
        except Failure as found:
            failure = found
        require(left_out is not None or failure is None, "what others wrote is lost:", failure)
        require(left_out is None or failure is not None, "nothing shows that this sync is left out")
    return len(syncs)


class Total:
    """The figures of some operations."""

    def __init__(self):
        self.operations = self.calls = self.states = self.differ = self.noticed = self.missed = 0
        self.found = [0, 0]

    def add(self, operation, left_out=(0, 0)):
        self.operations += 1
        self.calls += len(operation.events)
        self.states += operation.states
        self.differ += len(operation.seen)
        self.noticed, self.missed = self.noticed + left_out[0], self.missed + left_out[1]
        self.found = [a + b for a, b in zip(self.found, operation.found)]

    def figures(self, what, both=True):
        require(min(self.found) > 0 or not both, "before and after were not both seen:", self.found)
        require(self.noticed > 0 or not self.noticed + self.missed, "no missing sync was noticed")
        return (f"{self.operations} {what}: {self.calls} calls, {self.states} states of which "
                f"{self.differ} differ, {self.found[0]} before and {self.found[1]} after; {self.noticed} "
                f"syncs left out and noticed, {self.missed} not needed alone")


def add_recovery_beside_a_log(gateway, source, recoveries, *effort):
    """The move of the journal is synced in both directories before anything else moves."""
    log = beside_a_log(begin(gateway, "everything")).explore(source, *effort)
    syncs = log.syncs(True)
    last_move = max(number for number, event in enumerate(log.events) if is_move(event))
    left_out = log.leave_out(source, [number for number in syncs if number < last_move])
    require(left_out == (2, 0), "the move of a journal has", left_out, "syncs that are needed, and not")
    recoveries.add(log, left_out)


def in_full(gateway, source, restores, recoveries):
    effort = (1, 1, ()), (1, 0, (0.2, 0.5, 0.8, 0.95)), (1, 0, (0.5, 0.9))
    for scenario in SCENARIOS:
        restore = begin(gateway, scenario).explore(source, *effort)
        restores.add(restore, restore.leave_out(source, restore.syncs(scenario != "files")))
        for when in (0, 1, 1, 1, 2, 2):
            second = recovery(restore, source, when).explore(source, *effort)
            recoveries.add(second, second.leave_out(source, second.syncs(True)))
    add_recovery_beside_a_log(gateway, source, recoveries, *effort)


def in_short(gateway, source, restores, recoveries):
    restore = begin(gateway, source.choice(["files", "directories"]))
    restore.explore(source, (0.15, 0.02, (0.5,)))
    staged = [number for number in restore.syncs(True) if not restore.is_spare(number)]
    restores.add(restore, restore.leave_out(source, [source.choice(staged)]))
    for when in (1, 2):
        recoveries.add(recovery(restore, source, when).explore(source, (0.15, 0.02, (0.5,))))
    add_recovery_beside_a_log(gateway, source, recoveries, (0.15, 0.02, (0.5,)))


def campaign(program, full, source):
    restores, recoveries = Total(), Total()
    with Place(program) as gateway:
        (in_full if full else in_short)(gateway, source, restores, recoveries)
        equal = sum(others_wrote(gateway, source, damaged) for damaged in ((), ("user/gateway.conf",)))
    return (f"{restores.figures('restores')}; {recoveries.figures('recoveries', full)}; {equal} syncs of "
            "what others wrote left out and noticed")


main(campaign)
