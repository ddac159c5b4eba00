#!/usr/bin/env python3
"""Every verb ends in time, whatever happens to the lock of the storage.

    tests/waits_test.py PROGRAM

First another process holds the exclusive lock; then one holds two locks, the second one longer than the
first. Then fcntl() fails from one of its calls on, by strace, as on a file system without locks. Each verb
must end within its --wait and two seconds, say why, and leave the other snapshots alone. The verbs run side
by side, each on a gateway of its own.
"""

import concurrent.futures
import fcntl
import os
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time

WAIT = 1
# These wait for nobody for longer than a second.
READING = [["list"], ["list", "--json"], ["show", "weekly"], ["diff", "weekly", "kept"],
           ["verify", "--all"], ["status"], ["check-old"]]
CHANGING = [["save", "other"], ["save", "--force", "weekly"], ["load", "--yes", "weekly"],
            ["note", "weekly", "text"], ["pin", "weekly"], ["delete", "weekly"], ["autosave", "--max=3"]]
VERBS = READING + CHANGING
FAILING_CALLS = [1, 5, 9, 14, 20, 30, 45]
BUSY = 8
# Without a lock a verb succeeds, fails, declines, finds no storage, gives up, or has findings.
POSSIBLE = (0, 1, 5, 6, BUSY, 9)
MESSAGES = ("is locked by another program, or cannot be locked", "database is locked")


class Gateway:
    def __init__(self, program, directory):
        self.program = program
        for name in ("config/user", "state", "tmp"):
            os.makedirs(f"{directory}/{name}")
        with open(f"{directory}/config/user/gateway.conf", "w", encoding="ascii") as stream:
            stream.write("content\n")
        self.storage = f"{directory}/state/storage.db"
        self.environment = {
            **os.environ, "ASAN_OPTIONS": "detect_leaks=0",  # No leak can be looked for under strace.
            "KELMOR_CONFIG_PATH": f"{directory}/config/", "KELMOR_DYNAMIC_DIR": f"{directory}/state",
            "KELMOR_TEMP_DIR": f"{directory}/tmp", "KELMOR_LOG_FILE": f"{directory}/log"}
        for name in ("kept", "weekly"):
            assert self.run(["save", name])[0] == 0

    def run(self, arguments, prefix=(), most=WAIT + 2, wait=WAIT):
        """Returns exit status and output, within the time that the verb has."""
        wait = [f"--wait={wait}"] if arguments in CHANGING else []
        start = time.monotonic()
        done = subprocess.run(
            [*prefix, self.program, *arguments, *wait], stdin=subprocess.DEVNULL, text=True,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=20, check=False, env=self.environment)
        seconds = time.monotonic() - start
        assert seconds < most, f"{arguments} took {seconds:.1f} s"
        return done.returncode, done.stdout

    def kept_row(self):
        with sqlite3.connect(self.storage) as database:
            return database.execute("select keybase, load_time from Config where name = 'kept'").fetchall()


def lock_is_held(gateway, verb):
    holder = sqlite3.connect(gateway.storage, isolation_level=None)
    before = gateway.kept_row()
    holder.execute("begin exclusive")
    status, output = gateway.run(verb)
    holder.close()
    assert any(message in output for message in MESSAGES), f"{verb}: {output}"
    assert status == (0 if verb == ["shell"] else BUSY), f"{verb}: exit status {status}"
    assert gateway.kept_row() == before and before
    assert gateway.run(["list"])[0] == 0


def locks_follow_each_other(gateway, verb):
    """All waits of a verb share its limit: of a verb that reads, one second."""
    if verb in READING:
        holders = [sqlite3.connect(f"{os.path.dirname(gateway.storage)}/{name}", isolation_level=None)
                   for name in ("notes.db", "restore.db")]
        for holder in holders:
            holder.execute("begin exclusive")
        # One second for each of the two snapshots.
        most = WAIT + 2.9 if verb == ["verify", "--all"] else WAIT + 0.9
        gateway.run(verb, most=most)
        for holder in holders:
            holder.close()
        return
    wait = 3
    holder = sqlite3.connect(gateway.storage, isolation_level=None, check_same_thread=False)
    holder.execute("begin exclusive")
    with open(f"{os.path.dirname(gateway.storage)}/confsave.lock", "ab") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        later = threading.Timer(wait - 0.8, holder.rollback)
        later.start()
        status, output = gateway.run(verb, most=wait + 1.5, wait=wait)
        later.join()
    holder.close()
    assert status == BUSY, f"{verb}: exit status {status}: {output}"


def calls_fail(gateway, verb):
    """Returns how often the program noticed."""
    shutil.copy(gateway.storage, gateway.storage + ".saved")
    before = gateway.kept_row()
    noticed = 0
    for call in FAILING_CALLS:
        shutil.copy(gateway.storage + ".saved", gateway.storage)
        status, output = gateway.run(verb, [
            "strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=fcntl", "-e",
            f"inject=fcntl:error=ENOLCK:when={call}+"])
        assert status in POSSIBLE, f"{verb}, call {call}: {status}: {output}"
        noticed += any(message in output for message in MESSAGES)
        assert gateway.kept_row() == before, f"{verb}, call {call}: {output}"
    return noticed


def test(program, verb, directory):
    gateway = Gateway(program, directory)
    lock_is_held(gateway, verb)
    locks_follow_each_other(gateway, verb)
    noticed = calls_fail(gateway, verb)
    assert noticed > 0, f"{verb} never noticed a failure"
    return noticed


def main():
    program = os.path.realpath(sys.argv[1])
    with open("/mnt/main/etc/failover.ini", "w", encoding="ascii") as stream:
        stream.write("content\n")
    with tempfile.TemporaryDirectory() as directory, concurrent.futures.ThreadPoolExecutor(4) as pool:
        tests = [pool.submit(test, program, verb, f"{directory}/{number}")
                 for number, verb in enumerate(VERBS)]
        noticed = sum(one.result() for one in tests)
    print(f"{len(VERBS)} verbs, {noticed} of {len(VERBS) * len(FAILING_CALLS)} failing calls noticed")


main()
