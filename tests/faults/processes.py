#!/usr/bin/env python3
"""Lets many processes work on one storage.

    processes.py OPERATE [--full] [--seed=N]

Every row is there, a name and version is there once, waits end, and nobody is waited for who is being
asked.
"""

import subprocess
import threading
import time

from gateway import Gateway, main, require


def together(gateway, *calls):
    """Runs all at once; their statuses and outputs."""
    processes = [gateway.start(*words) for words in calls]
    results = []
    for process in processes:
        output = process.stdout.read().decode()
        results.append((process.wait(300), output))
        process.stdout.close()
    return results


def distinct_saves(gateway, count):
    for status, output in together(gateway, *[("save-many", f"p{i}-", count) for i in range(8)]):
        require(status == 0, "a saver ended with", status, output)
    names = {row[0] for row in gateway.query("select name from Config")}
    missing = [f"p{i}-{n}" for i in range(8) for n in range(count) if f"p{i}-{n}" not in names]
    require(not missing, "lost:", missing[:5], len(missing))
    return 8 * count


def one_name(gateway, count):
    for status, output in together(gateway, *[("save-again", "same", count) for _ in range(8)]):
        require(status == 0, "a saver ended with", status, output)
    require(gateway.query("select count(*) from Config where name='same'") == [(1,)], "not one row")
    return 8 * count


def autosaves(gateway, rounds):
    """In one second all want one name. Who finds it free and is too late gets the stated exception."""
    for _ in range(rounds):
        before = gateway.query("select count(*) from Config where name like 'autosave%'")[0][0]
        results = together(gateway, *[("autosave", "1000000") for _ in range(8)])
        for status, output in results:
            require(status == 0 or (output.startswith("status 0 Configuration 'autosave-")
                                    and output.endswith("already exists\n")), status, output)
        stored = gateway.query("select count(*) from Config where name like 'autosave%'")[0][0] - before
        done = sum(status == 0 for status, _ in results)
        require(stored == done, done, "said done,", stored, "are there")
    twice = gateway.query("select name from Config group by name, version having count(*) > 1")
    require(not twice, "twice:", twice)
    return 8 * rounds


def creation(gateway, rounds):
    """All find no file, and make it."""
    for _ in range(rounds):
        gateway.database.unlink(missing_ok=True)
        for status, output in together(gateway, *[("save-many", f"p{i}-", 1) for i in range(8)]):
            require(status == 0, "a creator ended with", status, output)
        gateway.require_integrity()
        require(gateway.query("select count(*) from Config") == [(8,)], "a row is lost")
        require(gateway.query("pragma auto_vacuum") == [(2,)], "another layout")
    return 8 * rounds


def waiting(gateway, locker, seconds):
    """A holder of the lock: another program, for SQLite's locks are the process's own."""
    command = [locker, gateway.database, str(seconds * 1000)]
    with subprocess.Popen(command, stdout=subprocess.PIPE) as holder:
        require(holder.stdout.read(1), "the lock is not held")
        start = time.monotonic()
        gateway.do("save", "patient")
        waited = time.monotonic() - start
    require(waited > seconds * 0.8, "did not wait:", waited)
    require(waited < seconds + 10, "waited for ever:", waited)


class Asked:
    """A process that waits for its next answer."""

    def __init__(self, gateway, *words):
        self.process = subprocess.Popen([gateway.program, *words], env=gateway.environment(),
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT)
        self.seen = b""

    def wait_for(self, prompt):
        watchdog = threading.Timer(20, self.process.kill)
        watchdog.start()
        while not self.seen.endswith(prompt.encode()):
            byte = self.process.stdout.read(1)
            require(byte, "ended before it asked", prompt, self.seen)
            self.seen += byte
        watchdog.cancel()

    def answer(self, text):
        self.process.stdin.write(text.encode() + b"\n")
        self.process.stdin.flush()


# Every question of every operation, and the answers that lead to it.
QUESTIONS = [
    (("ask-save", "weekly"), [("Overwrite it? [Yes/No] ", "no")]),
    (("ask-load", "weekly"), [("Save current configuration? [Yes/No] ", "yes"),
                              ("Name for the current configuration: ", "weekly"),
                              ("Overwrite it? [Yes/No] ", "no")]),
    (("ask-load", "weekly"), [("Save current configuration? [Yes/No] ", "no"),
                              ("prompt:\n>>> ", "Yes, do as I say")]),
    (("app-save", "daily"), [("Overwrite? ", "n")]),
    (("app-load", "daily"), [("Save current configuration [Y/n]? ", "y"),
                             ("Name for the current configuration: ", "daily"), ("Overwrite? ", "n")]),
    (("app-load", "daily"), [("Save current configuration [Y/n]? ", "n"), ("prompt:\n>>> ", "no")]),
]


def questions(gateway):
    gateway.do("save", "weekly")
    gateway.do("app-save", "daily")
    asked = 0
    for words, dialogue in QUESTIONS:
        process = Asked(gateway, *words)
        for prompt, answer in dialogue:
            process.wait_for(prompt)
            gateway.do("save", f"writer{asked}", timeout=10)
            gateway.do("app-save", f"writer{asked}", timeout=10)
            asked += 1
            process.answer(answer)
        process.process.stdin.close()
        process.process.stdout.read()
        require(process.process.wait(20) >= 0, words, "died")
    return asked


def campaign(program, full, source):
    locker = str(__import__("pathlib").Path(program).resolve().parent / "locker")
    with Gateway(program) as gateway:
        gateway.write_configuration("new")
        created = creation(gateway, 50 if full else 3)
        figures = (created, distinct_saves(gateway, 200 if full else 6),
                   one_name(gateway, 50 if full else 4), autosaves(gateway, 10 if full else 2),
                   questions(gateway))
        waiting(gateway, locker, 3 if full else 1)
        gateway.require_integrity()
    return ("%d creators of a file, %d saves by eight, %d of one name, %d autosaves, "
            "a writer at %d questions, a lock waited for" % figures)


main(campaign)
