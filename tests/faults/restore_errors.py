#!/usr/bin/env python3
"""Lets each system call of a restore of the typed library fail, once and for good.

    restore_errors.py OPERATE [--full] [--seed=N]

What the answer says about the configuration holds at that moment: nothing was changed, everything was put
back, or files that it names are not as they were. After one recovery the tree is exactly the one of before,
the same inodes, or exactly the new one; nothing is left, and the next restore works. Recoveries fail, too.
A run that hits no file of some sort, or no undo, fails.
"""

import collections
import re
import sqlite3

from gateway import ETC, Gateway, main, require
from restoring import CHANGING, EVERYTHING, KEEPING, REFUSED, Restoring, difference, without_inodes

CHANGE_ERRORS = ["EIO", "ENOSPC", "EACCES", "EDQUOT", "EROFS", "EMFILE"]
READ_ERRORS = ["EIO", "EACCES", "EMFILE"]
# Calls that do not fail so: SQLite reads an error of a lock as "held by somebody else", and waits.
NEVER = {"close", "fcntl", "mmap", "execve", "readlink", "getcwd", "dup", "dup2"}
SORTS = ["configuration", "failover", "storage.db", "restore.db", "confsave.lock"]
# Scenario, whether without an exchange of two files, and strikes in the short form.
RUNS = [(EVERYTHING, False, 15), (EVERYTHING, True, 4), (KEEPING, False, 4), (REFUSED, False, 3)]


def sort_of(gateway, line):
    """Which file a traced call is about; None for one that is not the gateway's."""
    call = line.split(" = ")[0]
    state = gateway.state
    for sort, path in (("storage.db", gateway.database), ("restore.db", state / "restore.db"),
                       ("notes", state / "notes.db"), ("confsave.lock", state / "confsave.lock"),
                       ("state", state), ("temporary", gateway.temp),
                       ("configuration", gateway.config), ("failover", ETC), ("other", gateway.root)):
        if str(path) in call:
            return sort
    return None


def calls_of(restoring, run):
    """(call, number, whether it changes something, sort) of an operation on files of the gateway."""
    run(restoring.tracer("%file,%desc"))
    changing = set(restoring.changing_calls())
    found = []
    for call, number, line in restoring.traced():
        sort = sort_of(restoring.gateway, line)
        if call not in NEVER and "INJECTED" not in line and sort:
            found.append((call, number, call in CHANGING and (call, number) in changing, sort))
    return found


def is_staged(restoring, path):
    return re.search(r"/\.confsave-restore-[0-9a-f]{16}(/|$)", path) and path not in restoring.before


def live_tree(restoring):
    """Without what a failed clean-up has left."""
    return {path: one for path, one in restoring.look().items() if not is_staged(restoring, path)}


def require_truth(restoring, call, for_good, output):
    """What the answer says about the tree, which is as it is right now."""
    now = live_tree(restoring)
    said = re.search(r"^exception code \d+ number -?\d+ (untouched|put_back|mixed) ", output, re.M)
    if said is None:
        require(output.endswith("done\n"), "the answer is", output)
        return "done"
    changed = difference(now, restoring.before)
    if said.group(1) == "mixed":
        # What cannot be looked at, or made durable, is not certain.
        is_of_journal = f"{restoring.gateway.state}/restore.db" in output
        if not changed and (for_good or call in ("fsync", "syncfs") or is_of_journal):
            return "put back, but not for certain"
        if "the new files are live until a recovery takes them back" in output:
            require(without_inodes(now) == restoring.after, "the answer names nothing:", output)
            return "mixed"
        require(changed, "the answer is 'mixed', and everything is as before:", output)
        for path in now.keys() | restoring.before.keys():
            if not same_file(now.get(path), restoring.before.get(path)):
                require(path in output, path, "is not as before, and the answer does not name it:", output)
    else:
        require(not changed, "the answer is", output, "but", changed)
    return said.group(1)


def same_file(a, b):
    """Apart from the other names of a file, which may be elsewhere now."""
    return a is not None and b is not None and a._replace(group="") == b._replace(group="")


class Figures:
    def __init__(self):
        self.answers, self.sorts, self.states = (collections.Counter() for _ in range(3))
        self.strikes = self.of_recovery = 0


def strike(restoring, figures, call, number, error, *, for_good=False, run=None):
    """One failed operation: the restore, or a recovery. Then a recovery without a fault."""
    point = f"inject={call}:error={error}:when={number}{'+' if for_good else ''}"
    try:
        _, output = (run or restoring.load)(restoring.tracer(call, point))
        # A recovery that meets a full disk says so, and does not try again.
        restoring.gives_up_stamp = run is not None and "load time" in output
        hit = [line for _, _, line in restoring.traced() if "INJECTED" in line and
               (call != "renameat2" or not restoring.fallback)]
        figures.sorts.update(filter(None, (sort_of(restoring.gateway, line) for line in hit)))
        restoring.unread = error == "EACCES" and any(sort_of(restoring.gateway, line) in
                                                     ("configuration", "failover") for line in hit)
        answer = require_truth(restoring, call, for_good, output) if run is None else "of a recovery"
        figures.answers[answer] += 1
        if "check=false" in restoring.words:
            require(answer != "done", "a restore was done whose check fails")
        status, output = restoring.recover()
        require(status == 0, "the recovery ended with", status, output)
        allowed = {"untouched": ["before"], "put_back": ["before"], "done": ["after"]}.get(answer, [])
        state = restoring.require_finished(*allowed)
        figures.states[state] += 1
    except Exception as failure:
        where = f"{restoring.name()} {point} {'in a recovery' if run is not None else ''}"
        raise type(failure)(f"{where}: {failure}") from failure


def in_restores(restoring, figures, count, full, source):
    calls = calls_of(restoring, restoring.load)
    changes = [call for call in calls if call[2]]
    reads = [call for call in calls if not call[2]]
    require(len(changes) > 30, restoring.scenario.name, "changes too little")
    if not full:
        firsts = {call[3]: call for call in source.sample(calls, len(calls))} if count > 10 else {}
        # What fails here may be durable all the same.
        syncs = [call for call in changes if call[0] in ("fsync", "fdatasync") and call[3] == "restore.db"]
        changes = source.sample(changes, count - count // 3) + (syncs if count > 10 else [])
        reads = [*source.sample(reads, count // 3), *firsts.values()]
    for call, number, is_change, _ in changes + reads:
        errors = CHANGE_ERRORS if is_change else READ_ERRORS
        for for_good in (False, True) if full and is_change else (source.random() < 0.4,):
            for error in source.sample(errors, 2 if full and is_change and not for_good else 1):
                restoring.reset()
                strike(restoring, figures, call, number, error, for_good=for_good)
                figures.strikes += 1


def in_undo(restoring, figures, count, source):
    """The exchange fails for good, and so does its undo."""
    restoring.reset()
    restoring.load(restoring.tracer("renameat2"))
    moves = [number for call, number, line in restoring.traced() if "RENAME_" in line]
    for number in source.sample(moves, min(count, len(moves))):
        restoring.reset()
        error = source.choice(["EIO", "EACCES", "EROFS"])
        strike(restoring, figures, "renameat2", number, error, for_good=True)
        figures.strikes += 1


def killed_in_exchange(restoring):
    restoring.reset()
    restoring.load(restoring.tracer("renameat2"))
    moves = [number for call, number, line in restoring.traced() if "RENAME_EXCHANGE" in line]
    restoring.reset()
    middle = moves[len(moves) // 2]
    restoring.load(restoring.tracer("renameat2", f"inject=renameat2:signal=KILL:when={middle}"))


def killed_in_undo(restoring):
    """A restore that was to be finished, and of which a part is undone."""
    killed_in_exchange(restoring)
    connection = sqlite3.connect(restoring.gateway.state / "restore.db")
    with connection:
        connection.execute("update restore set state = 2")
    connection.close()


def in_recoveries(restoring, figures, count, source, prepare):
    """The recovery of a restore that was killed."""
    prepare(restoring)
    calls = calls_of(restoring, restoring.recover)
    for call, number, is_change, _ in source.sample(calls, min(count, len(calls))):
        prepare(restoring)
        error = source.choice(CHANGE_ERRORS if is_change else READ_ERRORS)
        strike(restoring, figures, call, number, error, for_good=source.random() < 0.4,
               run=restoring.recover)
        figures.of_recovery += 1


def unreadable(restoring):
    """A file that cannot be read is named, and is not taken for one that differs."""
    gateway, name = restoring.gateway, "user/gateway.conf"
    paths = [word for path in (gateway.config / name, name, "gateway.conf") for word in ("-P", str(path))]
    for calls, error, text in (("read", "EIO", "Input/output error"),
                               ("openat,openat2", "EMFILE", "Too many open files")):
        restoring.reset()
        status, output = restoring.load(restoring.tracer(calls, f"inject={calls}:error={error}") + paths)
        require(status == 1 and " untouched " in output and f"{gateway.config / name}: {text}" in output,
                "the answer to", error, "is", output)
        restoring.require_finished("before")


def campaign(program, full, source):
    figures = Figures()
    with Gateway(program) as gateway:
        for scenario, fallback, count in RUNS:
            restoring = Restoring(gateway, scenario, fallback)
            in_restores(restoring, figures, count, full, source)
            if scenario is KEEPING:
                unreadable(restoring)
        restoring = Restoring(gateway, EVERYTHING)
        in_undo(restoring, figures, 30 if full else 3, source)
        for prepare in (killed_in_exchange, killed_in_undo):
            in_recoveries(restoring, figures, 9999 if full else 2, source, prepare)
    for sort in SORTS:
        require(figures.sorts[sort] > 0, "no failed call on", sort, figures.sorts)
    for answer in ("untouched", "put_back", "mixed", "done"):
        require(figures.answers[answer] > 0, "no restore answered", answer, figures.answers)
    hits = ", ".join(f"{count} on {sort}" for sort, count in figures.sorts.most_common())
    answers = ", ".join(f"{count} {answer}" for answer, count in figures.answers.most_common())
    return (f"{figures.strikes} calls failed once or for good in restores, {figures.of_recovery} in "
            f"recoveries: {hits}; answers: {answers}; after a recovery {figures.states['before']} trees as "
            f"before and {figures.states['after']} restored")


main(campaign)
