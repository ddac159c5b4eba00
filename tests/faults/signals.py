#!/usr/bin/env python3
"""Sends signals while tar, cp and SQLite work, and takes the streams away.

    signals.py OPERATE [--full] [--seed=N]

Signals go to the host with its commands, and to the commands alone. It ends with the stated message or the
default death; every row is there, whole, the new one only where the operation may have come so far, and
each file of the live configuration is the old or the stored one.
"""

import os
import signal
import subprocess
import time

from gateway import Gateway, main, require
from stored import require_stored

SIGNALS = [signal.SIGINT, signal.SIGQUIT, signal.SIGTERM, signal.SIGHUP]


SIZE = 100000


def check(gateway, where, weekly=("old", "new"), names=("weekly",)):
    """What the library and the program find; then everything is as before."""
    old, new = gateway.expected_files("old", SIZE), gateway.expected_files("new", SIZE)
    gateway.remove_temporary_files()
    try:
        require_stored(gateway, {"kept": [old], "shell": [old, new], "autosave*": [old, new],
                                "weekly": [gateway.expected_files(content, SIZE) for content in weekly]},
                               names=names, may_be_missing=["shell"])
        gateway.require_whole_files("old", "new", size=SIZE)
    except Exception as failure:
        raise type(failure)(f"{where}: {failure}") from failure
    gateway.restore_state()
    gateway.remove_scratch_directories()
    gateway.write_configuration("new", SIZE)


def strike_command(gateway, verb, words, command, number, **options):
    """Returns whether the operation failed of it."""
    where = (verb, command, number, options)
    status, output = gateway.run(verb, *words, SIGNAL=int(number), COMMAND=command, **options)
    done = output.endswith("done\n")
    failed = output in ("'tar' returned non-zero exit status.\n", "status 36 \n")
    require(status == -number or done or failed, *where, "ended with", status, output)
    require(status == -number or not list(gateway.temp.iterdir()), *where, "left a temporary file")
    weekly = ("old", "new") if status == -number else ("new",) if verb == "save" and done else ("old",)
    check(gateway, where, weekly)
    return not done


CASES = [("save", ["weekly"], "cd "), ("load", ["weekly"], "tar "), ("load", ["weekly"], "cp ")]


def during_commands(gateway):
    failed = [strike_command(gateway, verb, words, command, number)
              for verb, words, command in CASES for number in SIGNALS]
    require(any(failed), "no signal came in time")
    return len(failed)


def to_commands_alone(gateway, count, source):
    """The shell and its children are killed, and the host is not."""
    failed = 0
    for _ in range(count):
        verb, words, command = source.choice(CASES)
        number = source.choice([signal.SIGKILL, signal.SIGTERM])
        failed += strike_command(gateway, verb, words, command, number,
                                 SIGNAL_TO="commands", DELAY=source.randrange(1, 25))
    require(failed > 0, "no command was killed in time")
    return count, failed


def at_random_times(gateway, count, source):
    for _ in range(count):
        verb, words, typed = source.choice([("save", ["weekly"], ""), ("load", ["weekly"], ""),
                                            ("app-save", ["shell"], "y\n"), ("list", [], "")])
        number = source.choice(SIGNALS)
        process = gateway.start(verb, *words, typed=typed)
        time.sleep(source.uniform(0, 0.1))
        try:
            os.killpg(process.pid, number)
        except ProcessLookupError:
            pass
        output = process.stdout.read().decode("utf-8", "replace")
        status = process.wait(30)
        process.stdout.close()
        gateway.wait_for_group(process)
        require(status in (0, 1, -number), verb, number, "ended with", status, output)
        check(gateway, (verb, number))
    return count


def in_an_exchange(gateway):
    """A signal ends a restore, or its undo, when all files are of one content, and not before."""
    struck = 0
    calls = [(number, call, error) for number in [*SIGNALS, signal.Signals.SIGPIPE]
             for call in range(1, 4) for error in ("", "error=EIO:")]
    for number, call, error in calls:
        trace = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=renameat2",
                 "-e", f"inject=renameat2:{error}signal={number.name}:when={call}"]
        status, output = gateway.run("typed-load", "weekly", "no-keep", prefix=trace)
        require(status in (1 if error else 0, -number), "typed-load ended with", status, output)
        contents = {found.split(b" ")[0] for found in gateway.configuration().values()}
        require(contents == {b"new" if error else b"old"}, number, call, error, "left", contents)
        struck += status == -number
        gateway.do("typed-recover")
        gateway.restore_state()
        gateway.write_configuration("new", SIZE)
    require(struck > 0, "no signal came in time")
    return struck


CLOSINGS = ["<&-", ">&-", "2>&-", "<&- >&- 2>&-", "| true", "2>&1 | true", "</dev/full >/dev/full"]
VERBS = ["save weekly", "load weekly", "app-save shell", "list", "autosave 9"]


def without_streams(gateway, full, source):
    """Closed from the start, or a pipe that nobody reads."""
    lines = [f"{gateway.program} {words} {closing}" for closing in CLOSINGS for words in VERBS]
    for line in lines if full else source.sample(lines, 12):
        status = subprocess.run(["bash", "-c", line], env=gateway.environment(), check=False,
                                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL, timeout=60).returncode
        require(status in (0, 1, 141), line, "ended with", status)
        check(gateway, line, names=())
    return len(lines) if full else 12


def campaign(program, full, source):
    with Gateway(program) as gateway:
        gateway.write_configuration("old", SIZE)
        gateway.do("save", "kept")
        gateway.do("save", "weekly")
        gateway.keep_state()
        gateway.write_configuration("new", SIZE)
        figures = (during_commands(gateway), *to_commands_alone(gateway, 200 if full else 6, source),
                   at_random_times(gateway, 300 if full else 5, source), in_an_exchange(gateway),
                   without_streams(gateway, full, source))
    return ("%d signals to the host and its commands, %d to commands alone of which %d came in time, "
            "%d at random times, %d in an exchange, %d calls without a stream, nothing lost" % figures)


main(campaign)
