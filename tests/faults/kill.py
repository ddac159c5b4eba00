#!/usr/bin/env python3
"""Kills the host, with its commands and without, at every step and at random times.

    kill.py OPERATE [--full] [--seed=N]

Whatever it did, every row that was there loads, whole, and the next save works.
"""

import os
import signal
import time

from gateway import Gateway, main, require

# Verb, its arguments, what is typed, and whether the row that it overwrites has a window without one.
OPERATIONS = [
    ("save", ["fresh"], "", False),
    ("save", ["weekly"], "", False),
    ("load", ["weekly"], "", False),
    ("autosave", ["9"], "", False),
    ("app-save", ["daily"], "y\n", True),
    ("app-load", ["daily"], "n\nYes, do as I say\n", False),
    ("app-load", ["daily"], "\nbefore\n", False),
    ("app-del", ["nothing"], "", False),
]


def prepare(gateway):
    gateway.write_configuration("old")
    for name in ("kept", "weekly"):
        gateway.do("save", name)
    for name in ("daily", "steady"):
        gateway.do("app-save", name)
    gateway.do("autosave", "9")
    gateway.write_configuration("new")
    gateway.keep_state()


def check(gateway, window):
    gateway.require_integrity()
    gateway.require_loads("kept", "old")
    gateway.require_loads("weekly", "old", "new")
    gateway.require_loads("steady", "old", verb="app-load-row")
    gateway.require_loads("daily", "old", "new", verb="app-load-row", may_be_missing=window)
    rows = gateway.query("select count(*) from Config where name like 'autosave%'")
    require(rows[0][0] >= 1, "an autosave is lost")
    gateway.do("save", "next")
    gateway.require_loads("next", "new", "old")


def strike(gateway, operation, process, window):
    process.wait()
    process.stdout.close()
    gateway.wait_for_group(process)
    missing = [name for name in gateway.expected if name not in gateway.configuration()]
    require(all("/config." in name for name in missing), operation, "lost", missing)
    # What a killed restore leaves has links to files in place; to a cp that replaces those, and is killed
    # in its turn, they make a difference.
    gateway.remove_scratch_directories()
    gateway.write_configuration("new")
    check(gateway, window)
    gateway.restore_state()


def at_steps(gateway, full, source):
    kills = 0
    for verb, words, typed, window in OPERATIONS:
        steps = gateway.steps_of(verb, *words, typed=typed)
        gateway.restore_state()
        gateway.write_configuration("new")
        require(steps > 5, verb, "has no steps")
        chosen = range(1, steps + 1) if full else source.sample(range(1, steps + 1), 4)
        for step in chosen:
            for victim in ("group", "host") if full else (source.choice(["group", "host"]),):
                process = gateway.start(verb, *words, typed=typed, KILL_AT=step, KILL=victim)
                strike(gateway, (verb, words, "step", step, victim), process, window)
                require(process.returncode == -signal.SIGKILL, verb, "step", step, "came to nothing")
                kills += 1
    return kills


def durations(gateway):
    """How long each operation takes when nobody disturbs it."""
    result = {}
    for operation in OPERATIONS:
        verb, words, typed, _ = operation
        start = time.monotonic()
        gateway.do(verb, *words, typed=typed)
        result[str(operation)] = time.monotonic() - start
        gateway.restore_state()
    gateway.write_configuration("new")
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
        gateway.expected = gateway.configuration()
        steps = at_steps(gateway, full, source)
        times = at_random_times(gateway, 1000 if full else 20, source)
    return f"{steps} kills at steps, {times} at random times, nothing lost"


main(campaign)
