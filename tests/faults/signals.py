#!/usr/bin/env python3
"""Sends signals while tar, cp and SQLite work, and takes the streams away.

    signals.py OPERATE [--full] [--seed=N]

The stated message or the default death; the database whole, and every row.
"""

import os
import signal
import subprocess
import time

from gateway import Gateway, main, require

SIGNALS = [signal.SIGINT, signal.SIGQUIT, signal.SIGTERM, signal.SIGHUP]


def check(gateway, *where):
    gateway.require_integrity()
    rows = gateway.query("select name from Config where version != 0 order by name")
    require(rows == [("kept",), ("weekly",)], where, "rows:", rows)
    gateway.restore_state()
    gateway.write_configuration("new", 200000)


def during_commands(gateway):
    count = 0
    cases = [("save", ["weekly"], "cd "), ("load", ["weekly"], "tar "), ("load", ["weekly"], "cp ")]
    for verb, words, command in cases:
        for number in SIGNALS:
            status, output = gateway.run(verb, *words, SIGNAL=int(number), COMMAND=command)
            said = output.endswith("done\n") or output in ("'tar' returned non-zero exit status.\n",
                                                           "status 36 \n")
            require(status == -number or said, verb, command, number, "ended with", status, output)
            check(gateway, verb, command, number)
            count += 1
    return count


def at_random_times(gateway, count, source):
    for _ in range(count):
        verb, words, typed = source.choice([("save", ["weekly"], ""), ("load", ["weekly"], ""),
                                            ("app-save", ["weekly"], "y\n"), ("list", [], "")])
        number = source.choice(SIGNALS)
        process = gateway.start(verb, *words, typed=typed)
        time.sleep(source.uniform(0, 0.15))
        try:
            os.killpg(process.pid, number)
        except ProcessLookupError:
            pass
        output = process.stdout.read().decode("utf-8", "replace")
        status = process.wait(30)
        process.stdout.close()
        gateway.wait_for_group(process)
        require(status in (0, 1, -number), verb, number, "ended with", status, output)
        check(gateway, verb, number)
    return count


def without_streams(gateway):
    """Closed from the start, or a pipe that nobody reads."""
    count = 0
    for closing in ("<&-", ">&-", "2>&-", "<&- >&- 2>&-", "| true", "2>&1 | true", "</dev/full >/dev/full"):
        for words in ("save weekly", "load weekly", "app-save weekly", "list", "autosave 9"):
            line = f"{gateway.program} {words} {closing}"
            status = subprocess.run(["bash", "-c", line], env=gateway.environment(), check=False,
                                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                    stderr=subprocess.DEVNULL, timeout=60).returncode
            require(status in (0, 1, 141), line, "ended with", status)
            gateway.require_integrity()
            rows = {row[0] for row in gateway.query("select name from Config where version != 0")}
            require({"kept", "weekly"} <= rows, line, rows)
            gateway.restore_state()
            count += 1
    return count


def campaign(program, full, source):
    with Gateway(program) as gateway:
        gateway.write_configuration("old", 200000)
        gateway.do("save", "kept")
        gateway.do("save", "weekly")
        gateway.keep_state()
        gateway.write_configuration("new", 200000)
        figures = (during_commands(gateway), at_random_times(gateway, 400 if full else 10, source),
                   without_streams(gateway))
    return "%d signals to commands, %d at random times, %d calls without a stream, nothing lost" % figures


main(campaign)
