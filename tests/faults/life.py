#!/usr/bin/env python3
"""Lets a gateway live for a week: people, timers and hosts of the contract library work side by side.

    life.py OPERATE [--full] [--seed=N]

Eight processes at a time do what is drawn for them, and some are killed. Between two rounds the clock
moves, the disk fills or empties, the configuration is edited, and snapshots are pinned. After each round
the storage is sound, each pinned snapshot has every byte that it had, the configuration is one of those
that somebody made and no mixture, and `status` says what is so.
"""

import calendar
import collections
import fcntl
import json
import os
import pathlib
import re
import shutil
import signal
import sqlite3
import subprocess
import threading
import time

from gateway import ETC, Gateway, main, remove, require
from stored import found_by_program

ROOM = 12 << 20
LEAST_ROOM = 4 << 20
PROCESSES = 8
ROUNDS = 40, 1250
# So many rows of the packet filter, which `status` does not count, that it has a summary.
MANY_ROWS = """insert into Config (name, version, keybase, type, save_time)
    with recursive n (n) as (select 1 union all select n + 1 from n where n < 1000)
    select 'corlu-config', n, keybase, 3, save_time from n, Config where name = 's0'"""
ROUNDS_WITH_SUMMARY = 15
ROUNDS_BETWEEN_WINDOWS = 8
MINUTES = 8  # from one round to the next: a week in all
DAY = 86400
STALE = 31 * DAY
PENDING = 5
AUTOSAVE = r"autosave-\d{4}(-\d\d){5}(-\d+)?"
# Of the program: how often, the words, and the exit statuses of one that meets no fault.
NAME, OTHER, FILE = "NAME", "OTHER", "FILE"
VERBS = [
    (12, ["save", NAME, "--force"], {0, 8, 10}),
    (6, ["save", NAME, "--force", "--if-changed", "--comment", "if it is new"], {0, 8, 10}),
    (10, ["autosave", "--max", "4"], {0, 8, 10}),
    (5, ["autosave", "--max", "4", "--if-changed"], {0, 8, 10}),
    (10, ["load", NAME, "--yes", "--force"], {0, 3, 8, 10}),
    (4, ["load", NAME, "--yes", "--no-keep", "--exact"], {0, 3, 8, 10}),
    (4, ["load", NAME, "--yes", "--check", "false"], {0, 1, 3, 8, 10}),
    (8, ["load", NAME, "--yes", "--confirm-within", "1h"], {0, 3, 8, 10}),
    (4, ["load", NAME, "--dry-run"], {0, 3, 8, 9, 10}),
    (4, ["confirm"], {0, 1, 8, 10}),
    (3, ["revert"], {0, 1, 8, 10}),
    (2, ["recover"], {0, 8, 10}),
    (6, ["delete", NAME], {0, 3, 8, 10, 11}),
    (4, ["note", NAME, "seen"], {0, 3, 8}),
    (5, ["prune", "--keep", "5", "--match", "s*"], {0, 8, 10}),
    (3, ["prune", "--keep", "2"], {0, 8, 10}),
    (3, ["export", "--all", FILE, "--force"], {0, 8}),
    (3, ["export", NAME, FILE, "--force"], {0, 3, 8}),
    (4, ["import", OTHER, "--force"], {0, 8, 10, 11}),
    (3, ["verify", "--all"], {0, 8}),
    (6, ["list", "--long"], {0, 8}),
    (3, ["show", NAME], {0, 3, 8}),
    (5, ["diff", NAME], {0, 3, 8, 9}),
    (5, ["status"], {0, 8, 9}),
]
# Of a host, which knows nothing of pins and restores, and has snapshots of its own.
HOST = [(8, ["save", NAME]), (4, ["app-save", NAME]), (4, ["app-del", NAME]), (5, ["load", NAME, FILE]),
        (4, ["autosave", "1000000"]), (4, ["list"])]


def journaled(gateway, query):
    """The first column of what the journal of restores answers."""
    file = gateway.state / "restore.db"
    if not file.exists() or file.stat().st_size == 0:
        return []
    connection = sqlite3.connect(file)
    try:
        return [row[0] for row in connection.execute(query)]
    finally:
        connection.close()


def left_by_killed(gateway):
    """What nobody needs."""
    needed = journaled(gateway, "select staging from root")
    return sorted([str(path) for path in gateway.scratch_directories()] +
                  [str(path) for base in (gateway.config, ETC)
                   for path in base.glob(".confsave-restore-*") if path.name not in needed])


def wait_for_waiter(gateway):
    """One that takes a restore back holds the lock, and status says nothing of its work."""
    with open(gateway.state / "confsave.lock", "a", encoding="utf-8") as lock:
        for _ in range(300):
            try:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                return
            except BlockingIOError:
                time.sleep(0.1)
    require(False, "somebody holds the lock for half a minute")


class Life:
    def __init__(self, gateway, source):
        self.gateway, self.source = gateway, source
        self.round, self.shift, self.content = 0, 0, 0
        self.clock = str(pathlib.Path(gateway.program).parent / "libclock.so")
        self.pinned = {}
        self.other = gateway.root / "other.export"
        self.done = collections.Counter()
        self.seen = collections.Counter()
        self.is_full = False
        self.faults = []

    # What happens.

    def environment(self):
        return {**self.gateway.environment(), "LD_PRELOAD": self.clock, "CLOCK_SHIFT": str(self.shift),
                "ASAN_OPTIONS": "verify_asan_link_order=0:detect_leaks=0", "TZ": "UTC"}

    def confsave(self, *words):
        return subprocess.run([self.gateway.confsave, *words], env=self.environment(), text=True,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=60, check=False)

    def must(self, *words):
        done = self.confsave(*words)
        require(done.returncode == 0, words, "ended with", done.returncode, done.stderr)

    def begin(self):
        """A configuration, and what another gateway has exported."""
        self.edit()
        for number in range(3):
            self.must("save", f"i{number}")
        self.must("export", "--all", str(self.other))
        self.must("save", "s0", "--comment", "the first")
        self.pin()
        change(self.gateway.database, MANY_ROWS)

    def edit(self):
        self.content += 1
        self.gateway.write_configuration(f"content{self.content}", 2000)

    def draw(self, verbs):
        """Words, and what they may end with."""
        chosen = self.source.choices(verbs, [weight for weight, *_ in verbs])[0]
        names = [f"{'s' if verbs is VERBS else 'h'}{number}" for number in range(8)]
        if chosen[1][0] == "save":
            # With --force also a pinned one is replaced.
            names = [name for name in names if name not in {row[1] for row in self.pinned.values()}]
        names = {NAME: self.source.choice(names), OTHER: str(self.other),
                 FILE: str(self.gateway.root / f"file{self.source.randrange(4)}")}
        return [names.get(word, word) for word in chosen[1]], chosen[2] if len(chosen) > 2 else {0, 1}

    def operate(self):
        """One process, perhaps killed. Of what nobody disturbed, the exit status is one of those stated."""
        is_host = self.source.random() < 0.25
        words, allowed = self.draw(HOST if is_host else VERBS)
        if words[0] == "load" and is_host:
            words[2] += ".loaded/"
            pathlib.Path(words[2]).mkdir(exist_ok=True)
        delay = self.source.uniform(0, 0.1) if self.source.random() < 0.2 else None
        program = self.gateway.program if is_host else self.gateway.confsave
        return threading.Thread(target=self.run, args=(program, words, allowed, delay))

    def run(self, program, words, allowed, delay):
        with subprocess.Popen([program, *words], env=self.environment(), start_new_session=True, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT) as process:
            if delay is not None:
                time.sleep(delay)
                os.killpg(process.pid, signal.SIGKILL)
            output = process.communicate(timeout=120)[0]
            self.gateway.wait_for_group(process)
        self.done[words[0]] += 1
        status = process.returncode
        if status == -signal.SIGKILL:
            self.seen["killed"] += 1
        elif status not in allowed and not (self.is_full and status in (1, 6)):
            self.faults.append(f"{words} ended with {status}: {output}")

    def fill(self):
        """Now and then nothing is left, or almost nothing; now and then all is there again."""
        filler = self.gateway.state.parent / "filler"
        if not self.is_full and self.source.random() < 0.1:
            disk = os.statvfs(filler.parent)
            size = disk.f_bavail * disk.f_frsize - self.source.choice([0, 8, 64, 200]) * 1024
            with filler.open("wb") as file:
                os.posix_fallocate(file.fileno(), 0, max(size, 1))
            self.is_full = True
            self.seen["fillings of the disk"] += 1
        elif self.is_full and self.source.random() < 0.6:
            self.empty()

    def empty(self):
        (self.gateway.state.parent / "filler").unlink(missing_ok=True)
        self.is_full = False

    def pin(self):
        rows = self.rows("name glob 's*'")
        if not rows or self.is_full:
            return
        row = self.source.choice(rows)
        self.must("pin", f"{row[1]}@{row[2] or 'none'}")
        self.pinned[row[0]] = row

    def move_on(self):
        self.round += 1
        self.shift += MINUTES * 60
        if self.source.random() < 0.05:
            self.shift += self.source.choice([-1, 1]) * self.source.randrange(1, 40 * 86400)
        self.fill()
        if self.round == ROUNDS_WITH_SUMMARY:
            self.empty()
            change(self.gateway.database, "delete from Config where name = 'corlu-config'")
        if self.source.random() < 0.4:
            self.edit()
        if len(self.pinned) > 3 and not self.is_full:
            row = self.pinned.pop(self.source.choice(sorted(self.pinned)))
            self.must("unpin", f"{row[1]}@{row[2] or 'none'}")
        if self.source.random() < 0.3:
            self.pin()

    # What holds.

    def rows(self, condition):
        return self.gateway.query("select id, name, version, type, save_time, keybase, etc from Config "
                                  f"where {condition}")

    def journal(self):
        """The state of the restore that is not finished, or None."""
        return next(iter(journaled(self.gateway, "select state from restore")), None)

    def require_status(self):
        """What `status` says, and what is so."""
        wait_for_waiter(self.gateway)
        answer = self.confsave("status", "--json")
        require(answer.returncode in (0, 9), "status ended with", answer.returncode, answer.stderr)
        status = json.loads(answer.stdout)
        self.seen["summaries"] += has_summary(self.gateway)
        said = {one["code"] for one in status["attention"]}
        rows = self.gateway.query("select name, save_time, ifnull(length(keybase), 0) + "
                                  "ifnull(length(etc), 0) from Config where name <> 'corlu-config'")
        newest = max((saved for _, saved, _ in rows), default=0)
        newest_autosave = max((saved for name, saved, _ in rows if re.fullmatch(AUTOSAVE, name)), default=0)
        now = time.time() + self.shift
        state = self.journal()
        disk = os.statvfs(self.gateway.state)
        needed = max([LEAST_ROOM, *(3 * size for *_, size in rows)])
        # Nobody is at work: a restore that waits for its check waits for ever.
        is_so = {"pending": state == PENDING, "interrupted": state not in (None, PENDING),
                 "leftovers": any(map(has_made_name, left_by_killed(self.gateway))),
                 "failover-missing": False, "readable": False,
                 "stale": not rows or not now - STALE <= newest <= now + DAY or
                 0 < newest_autosave < now - STALE,
                 "space": disk.f_bavail * disk.f_frsize < needed}
        for code, holds in is_so.items():
            require((code in said) == bool(holds), "status says", sorted(said), "and", code, "is", holds,
                    status["attention"], left_by_killed(self.gateway))
            self.seen[f"times {code}"] += bool(holds)
        found = [status["snapshots"], seconds(status["newest_utc"]), seconds(status["newest_autosave_utc"]),
                 status["storage_bytes"], status["pending"] is None, status["interrupted"] is None]
        expected = [len(rows), newest, newest_autosave, self.gateway.database.stat().st_size,
                    not is_so["pending"], not is_so["interrupted"]]
        require(found == expected, "status says", found, "and it is", expected)

    def leave_pending(self):
        """By chance alone a short life may see no window at all."""
        if self.round % ROUNDS_BETWEEN_WINDOWS == 0 and not self.is_full and self.journal() is None:
            wait_for_waiter(self.gateway)
            self.must("load", next(iter(self.pinned.values()))[1], "--yes", "--confirm-within", "1h")

    def require_whole(self):
        """Each file says the same content, the very bytes of it."""
        live = self.gateway.configuration()
        contents = {found.split(b" ")[0].decode() for found in live.values()}
        require(len(contents) == 1, "a mixture:", {path: found[:20] for path, found in live.items()})
        self.gateway.require_whole_files(contents.pop(), size=2000)

    def settle(self):
        """What was killed is recovered, once there is room; a window does not stay open for long."""
        state = self.journal()
        if state is None:
            return
        if state == PENDING and self.source.random() < 0.4:
            return
        self.empty()
        if state == PENDING:
            self.must(self.source.choice(["confirm", "revert"]))
        else:
            self.must("recover")
            self.seen["recoveries"] += 1
        require(self.journal() is None, "still not finished:", self.journal())

    def look_back(self):
        require(not self.faults, *self.faults[:3])
        self.gateway.require_integrity()
        for row in self.pinned.values():
            require(self.rows(f"id = {row[0]}") == [row], "pinned", row[1], "is not what it was")
        self.leave_pending()
        self.require_status()
        self.settle()
        if self.journal() is None:
            self.require_whole()
        for path in map(pathlib.Path, left_by_killed(self.gateway)):
            remove(path)

    def live(self, rounds):
        self.begin()
        for _ in range(rounds):
            self.move_on()
            workers = [self.operate() for _ in range(PROCESSES)]
            for worker in workers:
                worker.start()
            for worker in workers:
                worker.join()
            self.look_back()
        self.empty()
        if self.journal() is not None:
            self.must("revert")
        self.must("verify", "--all")
        names = [row[1] for row in self.pinned.values()]
        for (name, _), found in found_by_program(self.gateway, *names).items():
            require(name not in names or (isinstance(found, dict) and found), name, "does not load:", found)


def change(database, sql):
    connection = sqlite3.connect(database)
    connection.execute(sql)
    connection.commit()
    connection.close()


def has_summary(gateway):
    """Whether one was kept after the latest change of the storage."""
    summary = gateway.state / "storage.db-summary"
    return summary.exists() and summary.stat().st_mtime_ns > gateway.database.stat().st_mtime_ns


def has_made_name(path):
    """One of six lower-case letters may be of a person."""
    return not re.fullmatch("[a-z]{6}", os.path.basename(path))


def seconds(text):
    return calendar.timegm(time.strptime(text, "%Y-%m-%dT%H:%M:%SZ")) if text else 0


class Divided(Gateway):
    """The state directory is on a disk of its own."""

    def __init__(self, program):
        super().__init__(program)
        disk = self.root / "disk"
        disk.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={ROOM},mode=700", "tmpfs", disk], check=True)
        self.state.rmdir()
        self.state = disk / "state"
        self.state.mkdir(mode=0o700)
        self.database = self.state / "storage.db"
        self.temp.chmod(0o700)
        # By its path the waiters of this gateway are told from those of others.
        self.confsave = shutil.copy(self.confsave, self.root)

    def __exit__(self, *words):
        subprocess.run(["pkill", "-KILL", "-f", f"^{self.confsave} revert --when-due"], check=False)
        super().__exit__(*words)
        subprocess.run(["umount", self.root / "disk"], check=False)


def campaign(program, full, source):
    rounds = ROUNDS[full]
    with Divided(program) as gateway:
        life = Life(gateway, source)
        life.live(rounds)
    expected = ["killed", "times pending", "summaries"]
    if full:
        expected += ["fillings of the disk", "recoveries", "times interrupted", "times leftovers",
                     "times space", "times stale"]
    for what in expected:
        require(life.seen[what] > 0, "never:", what)
    seen = ", ".join(f"{count} {what}" for what, count in sorted(life.seen.items()) if count)
    return f"{sum(life.done.values())} operations in {rounds} rounds of eight processes: {seen}"


main(campaign)
