#!/usr/bin/env python3
"""Kills the host, with its commands and without, at every step and at random times.

    kill.py OPERATE [--full] [--seed=N]

It is killed at its steps, at the system calls by which SQLite writes, and at random times. Whatever it did,
the library and then the program list and load every row that was there, whole, before anybody else opens
the file; the live configuration is whole, and the next save works.
"""

import os
import signal
import time

from gateway import Gateway, has_hot_journal, main, require
from stored import require_stored

# Verb, its arguments, what is typed, and whether the row that it is about may be gone afterwards.
OPERATIONS = [
    ("save", ["fresh"], "", False),
    ("save", ["weekly"], "", False),
    ("load", ["weekly"], "", False),
    ("autosave", ["9"], "", False),
    ("app-save", ["daily"], "y\n", True),
    ("app-load", ["daily"], "n\nYes, do as I say\n", False),
    ("app-load", ["daily"], "\nbefore\n", False),
    ("app-del", ["nothing"], "", False),
    ("typed-save", ["fresh"], "", False),
    ("typed-save", ["weekly"], "", False),
    ("typed-remove", ["spare"], "", True),
]


# So that a snapshot takes some pages of the database.
SIZE = 3000


def prepare(gateway):
    gateway.write_configuration("old", SIZE)
    for name in ("kept", "weekly", "spare"):
        gateway.do("save", name)
    for name in ("daily", "steady"):
        gateway.do("app-save", name)
    gateway.do("autosave", "9")
    gateway.write_configuration("new", SIZE)
    gateway.keep_state()


def check(gateway, window):
    old, new = gateway.expected_files("old", SIZE), gateway.expected_files("new", SIZE)
    require_stored(gateway, {"kept": [old], "weekly": [old, new], "steady": [old], "daily": [old, new],
                            "spare": [old],
                            "fresh": [new], "before": [new], "autosave*": [old, new]},
                           names=["weekly"],
                           may_be_missing=["fresh", "before"] + (["daily", "spare"] if window else []))
    rows = gateway.query("select count(*) from Config where name like 'autosave%'")
    require(rows[0][0] >= 1, "an autosave is lost")
    gateway.do("typed-verify")
    gateway.do("save", "next")
    gateway.require_loads("next", "new", size=SIZE)
    gateway.do("typed-save", "next")


def strike(gateway, operation, process, window):
    """Returns whether the storage was left in the middle of something."""
    process.wait()
    process.stdout.close()
    gateway.wait_for_group(process)
    hot = has_hot_journal(gateway.state)
    try:
        gateway.require_whole_files("old", "new", size=SIZE)
        # What a killed restore leaves has links to files in place; to a cp that replaces those, and is
        # killed in its turn, they make a difference.
        gateway.remove_scratch_directories()
        gateway.remove_temporary_files()
        gateway.write_configuration("new", SIZE)
        check(gateway, window)
    except Exception as failure:
        raise type(failure)(f"{operation}: {failure}") from failure
    gateway.restore_state()
    return hot


def at_steps(gateway, full, source):
    kills = 0
    for verb, words, typed, window in OPERATIONS:
        steps = gateway.steps_of(verb, *words, typed=typed)
        gateway.restore_state()
        gateway.write_configuration("new", SIZE)
        require(steps > 5, verb, "has no steps")
        chosen = range(1, steps + 1) if full else source.sample(range(1, steps + 1), 2)
        for step in chosen:
            for victim in ("group", "host") if full else (source.choice(["group", "host"]),):
                process = gateway.start(verb, *words, typed=typed, KILL_AT=step, KILL=victim)
                strike(gateway, (verb, words, "step", step, victim), process, window)
                require(process.returncode == -signal.SIGKILL, verb, "step", step, "came to nothing")
                kills += 1
    return kills


def at_system_calls(gateway, full, source):
    """The host alone, just before one of the calls by which SQLite writes. Kills, and hot journals."""
    kills = hot = 0
    for verb, words, typed, window in OPERATIONS if full else (OPERATIONS[1], OPERATIONS[-2]):
        for call in ("pwrite64", "fdatasync", "unlink"):
            number = 0
            while True:
                number += 1 if full else source.randrange(4, 14) if call == "pwrite64" else 1
                tracer = ["strace", "-qq", "-o", gateway.root / "trace", "-e", f"trace={call}",
                          "-e", f"inject={call}:signal=KILL:when={number}"]
                process = gateway.start(verb, *words, typed=typed, prefix=tracer)
                hot += strike(gateway, (verb, words, call, number), process, window)
                if process.returncode != -signal.SIGKILL:
                    break
                kills += 1
    require(hot > 0, "no strike left a hot journal")
    return kills, hot


def durations(gateway):
    """How long each operation takes when nobody disturbs it."""
    result = {}
    for operation in OPERATIONS:
        verb, words, typed, _ = operation
        start = time.monotonic()
        gateway.do(verb, *words, typed=typed)
        result[str(operation)] = time.monotonic() - start
        gateway.restore_state()
    gateway.write_configuration("new", SIZE)
    return result


def at_random_times(gateway, count, source):
    kills, duration = 0, durations(gateway)
    while kills < count:
        operation = source.choice(OPERATIONS)
        verb, words, typed, window = operation
        process = gateway.start(verb, *words, typed=typed)
        time.sleep(source.uniform(0, duration[str(operation)]))
        try:
            if source.random() < 0.7:
                os.killpg(process.pid, signal.SIGKILL)
            else:
                os.kill(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        strike(gateway, (verb, words), process, window)
        kills += process.returncode == -signal.SIGKILL
    return kills


def campaign(program, full, source):
    with Gateway(program) as gateway:
        prepare(gateway)
        steps = at_steps(gateway, full, source)
        calls, hot = at_system_calls(gateway, full, source)
        times = at_random_times(gateway, 500 if full else 8, source)
    return (f"{steps} kills at steps, {calls} at system calls with {hot} hot journals, "
            f"{times} at random times, nothing lost")


main(campaign)
