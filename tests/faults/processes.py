#!/usr/bin/env python3
"""Lets many processes work on one storage.

    processes.py OPERATE [--full] [--seed=N]

Each has a configuration of its own. Every row is there with the contents of who stored it, a name and
version is there once and never missing while it is overwritten, the lock is held while an overwrite packs,
waits end, and nobody is waited for who is being asked.
"""

import io
import pathlib
import subprocess
import tarfile
import threading
import time

from gateway import CONFIG, DATABASE, Gateway, main, require
from stored import found_by_library, found_by_program


def make_configurations(gateway):
    """One for each process; only the failover files are common to all."""
    gateway.write_configuration("new", SIZE)
    for number in range(8):
        directory = gateway.root / f"config{number}"
        for name, contents in expected_files(gateway, number).items():
            (directory / name).parent.mkdir(parents=True, exist_ok=True)
            (directory / name).write_bytes(contents)


# So that packing takes a while.
SIZE = 3000


def expected_files(gateway, number):
    files = gateway.expected_files(f"of process {number}", SIZE)
    return {name: files[name] for name in CONFIG + DATABASE}


def unpacked(archive):
    with tarfile.open(fileobj=io.BytesIO(archive), mode="r:gz") as members:
        return {member.name: members.extractfile(member).read() for member in members if member.isfile()}


def require_contents(gateway, pattern, writers):
    """Each row that matches has the configuration of one of its writers, whole. `writers` makes their
    numbers from the name. The number of rows."""
    failover = {name: contents for name, contents in gateway.expected_files("new", SIZE).items()
                if name not in CONFIG + DATABASE}
    rows = gateway.query(f"select name, keybase, etc from Config where name glob '{pattern}'")
    for name, keybase, etc in rows:
        try:
            found, found_failover = unpacked(keybase), unpacked(etc)
        except (tarfile.TarError, EOFError, OSError, TypeError) as failure:
            require(False, name, "does not unpack:", failure)
        allowed = [expected_files(gateway, number) for number in writers(name)]
        require(found in allowed, name, "is of others, or not whole")
        require(found_failover == failover, name, "has other failover files")
    return len(rows)


def of_number(name):
    return [int(name[1])]


def of_anybody(_):
    return range(8)


def require_loads(gateway, *names):
    """The library and the program load them as well."""
    for who in (found_by_library, found_by_program):
        for (name, _), found in who(gateway, *names).items():
            loads = isinstance(found, dict) and found
            require(name not in names or loads, name, "does not load:", who.__name__)


def together(gateway, *calls):
    """Runs all at once, each with its own configuration; their statuses and outputs."""
    processes = [gateway.start(*words, prefix=["env", f"KELMOR_CONFIG_PATH={gateway.root}/config{number}/"])
                 for number, words in enumerate(calls)]
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
    require(require_contents(gateway, "p*", of_number) == 8 * count, "more rows than were stored")
    require_loads(gateway, "p0-0", "p7-0")
    return 8 * count


def unlocked_saves(gateway, count):
    """The gateway's shell packs without a lock: only the names of temporary files keep the archives of
    several processes apart."""
    for status, output in together(gateway, *[("app-save-many", f"s{i}-", count) for i in range(8)]):
        require(status == 0, "a saver ended with", status, output)
    require(require_contents(gateway, "s*", of_number) == 8 * count, "a row is lost")
    return 8 * count


def one_name(gateway, count):
    """All overwrite one row, which a reader finds at any time."""
    gateway.do("save", "same")
    calls = [("save-again", "same", count) for _ in range(7)] + [("find-always", "same", 20 * count)]
    for status, output in together(gateway, *calls):
        require(status == 0, "a saver or reader ended with", status, output)
    require(require_contents(gateway, "same", of_anybody) == 1, "not one row")
    require_loads(gateway, "same")
    return 7 * count


def locked_while_packing(gateway, locker):
    """Before each tar of an overwrite another program tries the lock. How often it was held."""
    witness = gateway.root / "witness"
    gateway.do("save", "same", COMMAND="cd ",
               BEFORE=f"{locker} {gateway.database} 0 && echo free >>{witness} || echo held >>{witness}")
    seen = witness.read_text().split()
    require(seen == ["held"] * 2, "while an overwrite packs, the lock is", seen)
    return len(seen)


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
        # One may delete the row that another has just stored (quirk Q52).
        require(1 <= stored <= done, done, "said done,", stored, "are there")
    require_contents(gateway, "autosave*", of_anybody)
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
        require(require_contents(gateway, "*", of_number) == 8, "a row is lost")
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
    locker = str(pathlib.Path(program).resolve().parent / "locker")
    with Gateway(program) as gateway:
        make_configurations(gateway)
        figures = (creation(gateway, 50 if full else 2), distinct_saves(gateway, 100 if full else 4),
                   unlocked_saves(gateway, 100 if full else 4), one_name(gateway, 50 if full else 4),
                   locked_while_packing(gateway, locker), autosaves(gateway, 10 if full else 2),
                   questions(gateway))
        waiting(gateway, locker, 3 if full else 1)
        gateway.require_integrity()
    return ("%d creators of a file, %d saves by eight, %d without a lock, %d of one name, "
            "%d archives packed under the lock, %d autosaves, a writer at %d questions, "
            "a lock waited for" % figures)


main(campaign)
