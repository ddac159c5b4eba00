#!/usr/bin/env python3
"""While the program asks a person something, it holds no lock.

    tests/questions_test.py PROGRAM

At the question, another process takes the lock of the program and the exclusive lock of the storage.
"""

import os
import pty
import select
import sqlite3
import subprocess
import sys
import tempfile
import time

PATIENCE = 20
# The verb, and the end of its question.
QUESTIONS = [(["save", "weekly"], "[Yes/No] "), (["load", "weekly"], "[Yes/No] ")]


def start_at_a_terminal(command, environment):
    process, terminal = pty.fork()
    if process == 0:
        os.execve(command[0], command, environment)
    return process, terminal


def read_until(terminal, end):
    """Returns all that was written; with `end` as None until the program has ended."""
    screen = ""
    limit = time.monotonic() + PATIENCE
    while end is None or not screen.endswith(end):
        assert time.monotonic() < limit, f"no {end!r}: {screen!r}"
        if not select.select([terminal], [], [], 0.1)[0]:
            continue
        try:
            piece = os.read(terminal, 65536)
        except OSError:
            piece = b""
        if not piece:
            assert end is None, f"no {end!r}: {screen!r}"
            break
        screen += piece.decode()
    return screen


def ask(program, directory, environment, verb, question):
    process, terminal = start_at_a_terminal([program, *verb], environment)
    read_until(terminal, question)
    lock = ["flock", "--nonblock", f"{directory}/state/confsave.lock", "true"]
    assert subprocess.run(lock, check=False).returncode == 0, f"{verb} holds the lock of the program"
    storage = sqlite3.connect(f"{directory}/state/storage.db", timeout=0, isolation_level=None)
    storage.execute("begin exclusive")
    storage.execute("rollback")
    storage.close()
    os.write(terminal, b"\x04")
    read_until(terminal, None)
    os.close(terminal)
    status = os.waitstatus_to_exitcode(os.waitpid(process, 0)[1])
    assert status == 5, f"{verb}: exit status {status}"


def main():
    program = os.path.realpath(sys.argv[1])
    with tempfile.TemporaryDirectory() as directory:
        for name in ("config/user", "state", "tmp"):
            os.makedirs(f"{directory}/{name}")
        environment = {
            **os.environ, "KELMOR_CONFIG_PATH": f"{directory}/config/",
            "KELMOR_DYNAMIC_DIR": f"{directory}/state", "KELMOR_TEMP_DIR": f"{directory}/tmp",
            "KELMOR_LOG_FILE": f"{directory}/log"}
        configuration = f"{directory}/config/user/gateway.conf"
        for number, (verb, question) in enumerate(QUESTIONS):
            with open(configuration, "w", encoding="ascii") as stream:
                stream.write(f"content {number}\n")
            if number == 0:
                subprocess.run([program, "save", "weekly"], env=environment, check=True)
            ask(program, directory, environment, verb, question)


main()
