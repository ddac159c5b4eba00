#!/usr/bin/env python3
"""Kills a restore of the typed library, and its recovery, at each system call that changes something.

    restore_kill.py OPERATE [--full] [--seed=N]

After the next recovery the tree is exactly the one of before, the same inodes, or exactly the new one; the
load time says which; nothing is left, and the next restore works. Restores of all sorts of changes, one
with the file system's exchange of two files refused, one with a check that succeeds and one that fails.
Files that people have put in the way after a kill survive, and are named.
"""

import collections
import io
import os
import pathlib
import re
import signal
import tarfile

from gateway import Gateway, main, require
from restoring import (ATTRIBUTES, CHANGING, CHECKED, EVERYTHING, KEEPING, REFUSED, TARGET, Restoring,
                       without_inodes)

# Scenario, whether without an exchange of two files, and kills in the short form.
RUNS = [(EVERYTHING, False, 12), (EVERYTHING, True, 4), (KEEPING, False, 3), (ATTRIBUTES, False, 2),
        (CHECKED, False, 3), (REFUSED, False, 2), (TARGET, False, 2)]


class Figures:
    def __init__(self):
        self.kills = self.of_recovery = self.missed = 0
        self.states = collections.Counter()
        self.calls = collections.Counter()


def changing_calls(restoring, run):
    """Those of an operation that nobody kills. `run(prefix)` performs it."""
    run(restoring.tracer(",".join(CHANGING)))
    return restoring.changing_calls()


def kill(restoring, run, call, number):
    """Whether it was killed: some calls are not made each time."""
    prefix = restoring.tracer(call, f"inject={call}:signal=KILL:when={number}")
    status, output = run(prefix)
    require(status in (-signal.SIGKILL, 0) or "check=false" in restoring.words, call, number, "ended with",
            status, output)
    return status == -signal.SIGKILL


def strike(restoring, figures, point, kills_of_recovery=()):
    """A restore killed at `point`, its recovery at each of these, then a recovery that nobody kills."""
    restoring.reset()
    try:
        was_killed = kill(restoring, restoring.load, *point)
        figures.kills += was_killed
        figures.missed += not was_killed
        figures.calls[point[0]] += was_killed
        for again in kills_of_recovery:
            figures.of_recovery += kill(restoring, restoring.recover, *again)
        status, output = restoring.recover()
        require(status == 0, "the recovery ended with", status, output)
        state = restoring.require_finished()
        figures.states[state] += 1
    except Exception as failure:
        where = (restoring.name(), *point, *kills_of_recovery)
        raise type(failure)(f"{where}: {failure}") from failure


def calls_of_recovery(restoring, point):
    """Those of the recovery of a restore that was killed there."""
    restoring.reset()
    kill(restoring, restoring.load, *point)
    return changing_calls(restoring, restoring.recover)


def in_restores(restoring, figures, points, full, source):
    for number, point in enumerate(points):
        strike(restoring, figures, point)
        if number % (5 if full else 4):
            continue
        calls = calls_of_recovery(restoring, point)
        if full and number % 40 == 0:
            chosen = [[call] for call in calls]
        else:
            chosen = [source.choices(calls, k=2)] if calls else []
        for kills in chosen:
            strike(restoring, figures, point, kills)


def chosen_points(calls, moves, count, source):
    """Most around the exchange, one of them right behind its first step, and some elsewhere."""
    first, last = calls.index(moves[0]), calls.index(moves[-1])
    near = [point for point in calls[first + 2:last + 60] if point != calls[first + 1]]
    around = source.sample(near, min(len(near), 2 * count // 3))
    far = calls[:first]
    return [calls[first + 1], *around, *source.sample(far, min(len(far), count // 3))]


def strike_scenario(restoring, figures, count, full, source):
    calls = changing_calls(restoring, restoring.load)
    moves = [point for point in calls if point[0] in ("renameat2", "renameat")]
    restoring.require_finished("before" if "check=false" in restoring.words else "after")
    require(len(calls) > 30, restoring.scenario.name, "changes too little:", len(calls))
    points = calls if full else chosen_points(calls, moves, count, source)
    in_restores(restoring, figures, points, full, source)
    return len(calls)


# After a kill in the middle of the exchange

def middle_of_exchange(restoring):
    """The restore is killed there. The directories with staged files."""
    restoring.reset()
    changing_calls(restoring, restoring.load)
    moves = [number for call, number, line in restoring.traced()
             if call == "renameat2" and "RENAME_EXCHANGE" in line]
    require(len(moves) > 6, "only", len(moves), "files were exchanged")
    restoring.reset()
    middle = moves[len(moves) // 2]
    require(kill(restoring, restoring.load, "renameat2", middle), "the kill came to nothing")
    directories = [path for path in restoring.gateway.config.glob(".confsave-restore-*")
                   if str(path) not in restoring.before]
    require(len(directories) == 1, "staged in", directories)
    return directories[0]


def by_the_next_command(restoring):
    """Whatever is about to change something recovers first."""
    for words in (("typed-save", "other"), ("typed-remove", "nothing")):
        middle_of_exchange(restoring)
        restoring.run(*words)
        restoring.require_finished("before")


def with_a_letter(restoring):
    """A person has put a file into the staging directory."""
    staging = middle_of_exchange(restoring)
    letter = staging / "letter"
    letter.write_text("of a person")
    _, output = restoring.recover()
    require(letter.exists() and letter.read_text() == "of a person", "recovery deleted a person's file")
    require(str(staging) in output, "recovery does not name what stays:", output)
    letter.unlink()
    restoring.recover()
    if staging.exists():
        staging.rmdir()
    restoring.require_finished("before")


def with_another_file(restoring):
    """A person has replaced a file that was restored already."""
    middle_of_exchange(restoring)
    now = restoring.look()
    path = next(pathlib.Path(path) for path, one in now.items() if one.kind == "file" and path in
                restoring.before and restoring.before[path].inode != one.inode and
                without_inodes({path: one})[path] == restoring.after.get(path))
    mine = path.with_name("mine")
    mine.write_text("of a person")
    os.replace(mine, path)
    before = restoring.look()
    status, output = restoring.recover()
    require(status != 0 and str(path) in output, "recovery does not name the file of a person:", output)
    require(path.read_text() == "of a person", "recovery lost the file of a person")
    again = restoring.look()
    restoring.recover()
    require(restoring.look() == again, "a second recovery changes something")
    require(before[str(path)] == again[str(path)], "the file of a person is another")
    path.rename(restoring.gateway.root / "moved-away")
    restoring.recover()
    restoring.require_finished("before")


def edited_during_the_check(restoring):
    """A person replaces a restored file while the check runs, which fails then."""
    restoring.reset()
    path = restoring.gateway.config / "user/gateway.conf"
    edit = f"printf mine > {path}.new && mv {path}.new {path} && false"
    status, output = restoring.run("typed-load", "weekly", "no-keep", f"check={edit}")
    require(status == 1 and " put_back " in output, "the answer is", output)
    kept = re.search("is kept as '([^']+)'", output)
    require(kept, "the answer does not name a snapshot:", output)
    rows = restoring.gateway.query(f"select keybase from Config where name = '{kept.group(1)}'")
    require(len(rows) == 1, kept.group(1), "is stored", len(rows), "times")
    with tarfile.open(fileobj=io.BytesIO(rows[0][0]), mode="r:gz") as archive:
        content = archive.extractfile("user/gateway.conf").read()
    require(content == b"mine", "the file of a person is kept as", content)
    restoring.require_finished("before")


def campaign(program, full, source):
    figures, calls = Figures(), 0
    with Gateway(program) as gateway:
        for scenario, fallback, count in RUNS:
            restoring = Restoring(gateway, scenario, fallback)
            calls += strike_scenario(restoring, figures, count, full, source)
        restoring = Restoring(gateway, EVERYTHING)
        by_the_next_command(restoring)
        with_a_letter(restoring)
        with_another_file(restoring)
        edited_during_the_check(Restoring(gateway, REFUSED))
    require(figures.kills > 0 and figures.of_recovery > 0, "nothing was killed")
    require(figures.missed <= figures.kills // 10, figures.missed, "kills came to nothing")
    require(min(figures.states["before"], figures.states["after"]) > 0, "only seen:", figures.states)
    require(figures.calls["renameat2"] > 0 and figures.calls["fsync"] > 0, "not killed at:", figures.calls)
    return (f"{figures.kills} kills at the {calls} system calls of {len(RUNS)} restores, "
            f"{figures.of_recovery} of recoveries: {figures.states['before']} trees as before, "
            f"{figures.states['after']} restored, nothing left")


if __name__ == "__main__":
    main(campaign)
