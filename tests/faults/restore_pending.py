#!/usr/bin/env python3
"""Kills what is done to restores that wait for their confirmation, and lets confirmations meet the end.

    restore_pending.py OPERATE [--full] [--seed=N]

The restore, its confirmation, its revert and its expiry are killed at each system call that changes
something. Whatever was decided before the kill stays decided; the tree is that of before, the very files,
or the new one; what people have edited since is kept. Then a confirmation and the end of the window come
at the same moment: exactly one of them wins, and the tree is what the winner says.
"""

import collections
import sqlite3
import subprocess
import time

from gateway import Gateway, main, remove, require
from restore_kill import changing_calls, kill
from restoring import EVERYTHING, KEEPING, Restoring

WINDOW = "within=3600"
WINDOWED = KEEPING._replace(name="windowed", words=["no-keep", WINDOW])
EXACT = EVERYTHING._replace(name="everything windowed", words=["exact", "no-keep", WINDOW])
MINE = b"of a person"
# Operation, whether a person edits a file before, and kills of it in the short form.
RUNS = [("load", False, 4), ("confirm", False, 5), ("revert", False, 4), ("revert", True, 5),
        ("expiry", False, 2), ("expiry", True, 2)]
RACES = 30, 1000
# A race is open for so long before and after the deadline, in milliseconds, at least.
SPREAD = 12


def since_boot():
    return time.clock_gettime_ns(time.CLOCK_BOOTTIME) // 1_000_000


class Pending:
    """One operation on a pending restore, again and again."""

    def __init__(self, restoring, operation, edits):
        self.restoring, self.operation, self.edits = restoring, operation, edits
        self.edited = restoring.gateway.config / "user/gateway.conf"

    def journal(self, statement):
        connection = sqlite3.connect(self.restoring.gateway.state / "restore.db")
        try:
            with connection:
                return connection.execute(statement).fetchall()
        finally:
            connection.close()

    def state(self):
        return [row[0] for row in self.journal("select state from restore")]

    def set_deadline(self, deadline):
        self.journal(f"update restore set deadline = {deadline}")

    def prepare(self):
        self.restoring.reset()
        if self.operation == "load":
            return
        self.restoring.gateway.do("typed-load", "weekly", *self.restoring.words)
        require(self.state() == [5], "the state of a pending restore is", self.state())
        if self.edits:
            self.edited.write_bytes(MINE)
        if self.operation == "expiry":
            self.set_deadline(1)

    def run(self, prefix=()):
        if self.operation == "load":
            return self.restoring.load(prefix)
        word = {"confirm": "typed-confirm", "revert": "typed-revert", "expiry": "typed-recover"}
        return self.restoring.run(word[self.operation], prefix=prefix)

    def require_mine(self):
        """The edit is in a snapshot, or set aside where a warning says; it is put away then."""
        aside = [path for path in self.restoring.gateway.config.glob(".confsave-restore-*/*")
                 if path.is_file() and path.read_bytes() == MINE]
        for path in aside:
            remove(path.parent)
        rows = self.restoring.gateway.query("select name from Config where name like 'reverted-%'")
        shown = [subprocess.run([self.restoring.gateway.confsave, "show", name, "--file", self.edited],
                                env=self.restoring.gateway.environment(), capture_output=True,
                                check=False).stdout for (name,) in rows]
        require(aside or MINE in shown, "the edit of a person is lost:", rows, shown)

    def is_restored(self):
        """Beside the directories in which the old files wait."""
        def seen(files):
            # Old files that wait have names there, so hard links are not compared.
            return {path: one._replace(inode=0, group="") for path, one in files.items()
                    if path in self.restoring.after or "/.confsave-restore-" not in path}

        return seen(self.restoring.look()) == seen(self.restoring.after)

    def settle(self, was_killed):
        """What the next commands make of it: "before" or "after"."""
        restoring = self.restoring
        status, output = restoring.recover()
        if status != 0:
            require("waits to be confirmed" in output, "the recovery says", output)
            require(self.state() == [5] and self.operation != "expiry", "still pending:", output)
            require(was_killed or self.operation == "load", "nobody killed it, and it is pending")
            require(self.edits or self.is_restored(), "it may be confirmed, and the tree is a mixture")
            self.set_deadline(1)
            restoring.gateway.do("typed-recover")
        if self.edits:
            self.require_mine()
            # An archive that was being packed.
            restoring.gateway.remove_temporary_files()
        state = restoring.require_finished()
        if self.operation in ("revert", "expiry"):
            require(state == "before", "a revert left the tree", state)
        return state


def strike(pending, figures, point):
    pending.prepare()
    try:
        was_killed = kill(pending.restoring, pending.run, *point)
        figures.kills += was_killed
        figures.missed += not was_killed
        state = pending.settle(was_killed)
        figures.states[pending.operation, state] += 1
    except Exception as failure:
        raise type(failure)(f"{pending.operation} {point}: {failure}") from failure


class Figures:
    def __init__(self):
        self.kills = self.missed = self.calls = 0
        self.states, self.wins = collections.Counter(), collections.Counter()


def strike_operation(restoring, figures, run, full, source):
    operation, edits, count = run
    pending = Pending(restoring, operation, edits)
    pending.prepare()
    calls = changing_calls(restoring, pending.run)
    pending.settle(False)
    require(len(calls) > 10, operation, "changes too little:", len(calls))
    figures.calls += len(calls)
    for point in calls if full else source.sample(calls, count):
        strike(pending, figures, point)


def lead_of(restoring):
    """The milliseconds that a process needs before it looks at the journal, about."""
    times = []
    for _ in range(5):
        start = since_boot()
        restoring.run("typed-confirm")
        times.append(since_boot() - start)
    return sorted(times)[2]


def race(pending, figures, source):
    """A confirmation and the end of the window."""
    restoring = pending.restoring
    lead = lead_of(restoring)
    pending.prepare()
    deadline = since_boot() + 2 * lead + 40
    pending.set_deadline(deadline)
    waiting = restoring.gateway.start("typed-wait")
    spread = max(SPREAD, lead)
    time.sleep(max(deadline - since_boot() - lead + source.uniform(-spread, spread), 0) / 1000)
    confirmed, output = restoring.run("typed-confirm")
    require(waiting.wait(30) == 0, "who waits ended with", waiting.returncode)
    reverted = "reverted" in waiting.stdout.read().decode()
    waiting.stdout.close()
    state = restoring.state_of_tree()
    if confirmed == 0:
        require(not reverted and state == "after", "confirmed, and the tree is", state, reverted)
    else:
        says = "was up, and it was taken back" in output or "not confirmed in time" in output
        require(says and state == "before", "refused, and the tree is", state, output)
    figures.wins["confirmation" if confirmed == 0 else "expiry"] += 1
    restoring.require_sound_storage(state)
    restoring.require_nothing_left()


def campaign(program, full, source):
    figures = Figures()
    with Gateway(program) as gateway:
        for scenario in (WINDOWED, EXACT) if full else (WINDOWED,):
            restoring = Restoring(gateway, scenario)
            for run in RUNS:
                strike_operation(restoring, figures, run, full, source)
        pending = Pending(Restoring(gateway, WINDOWED), "race", False)
        for _ in range(RACES[full]):
            race(pending, figures, source)
    require(figures.missed <= figures.kills // 10, figures.missed, "kills came to nothing")
    require(min(figures.wins["confirmation"], figures.wins["expiry"]) > 0, "only won:", figures.wins)
    require(full is False or figures.states["confirm", "before"] > 0, "seen:", figures.states)
    return (f"{figures.kills} kills at {figures.calls} system calls; {sum(figures.wins.values())} races: "
            f"{figures.wins['confirmation']} confirmed, {figures.wins['expiry']} expired")


if __name__ == "__main__":
    main(campaign)
