#!/usr/bin/env python3
"""While the program asks a person something, it holds no lock, and what others do meanwhile counts.

    tests/questions_test.py PROGRAM

At the question, another process takes the lock of the program and the exclusive lock of the storage. At the
question of a save, others pin, replace or delete the snapshot: only what the question named is overwritten.
"""

import json
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
# What happens to a snapshot of the comment "old" while the question of a save is open, the answers, what is
# on the screen at the end, the exit status, and the comments of what is stored then, with "!" if pinned.
MEANWHILE = [
    ("true", ["Yes"], "Overwrite it? [Yes/No] Yes\r\n", 0, ["mine"]),
    ("confsave pin weekly", ["Yes"],
     "confsave: the snapshot 'weekly' exists and is pinned. Unpin it, or give --force.\r\n", 11, ["old!"]),
    ("confsave save --force weekly --comment theirs", ["Yes", "No"],
     "confsave: nothing was stored.\r\n", 5, ["theirs"]),
    ("confsave save --force weekly --comment theirs", ["Yes", "Yes"], "Yes\r\n", 0, ["mine"]),
    ("confsave save --force weekly --comment theirs; confsave pin weekly", ["Yes"],
     "confsave: the snapshot 'weekly' exists and is pinned. Unpin it, or give --force.\r\n", 11,
     ["theirs!"]),
    ("confsave delete weekly", ["Yes"], "Yes\r\n", 0, ["mine"]),
    ("confsave pin weekly; cp state/notes.db kept; sqlite3 state/notes.db 'pragma user_version = 9'",
     ["Yes"], "without this file only comments, pins and manifests are lost.\r\n", 1, ["old!"]),
]


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


def save_meanwhile(program, directory, environment, case):
    meanwhile, answers, end, expected, stored = case

    def confsave(*words):
        return subprocess.run([program, *words], env=environment, check=True, stdout=subprocess.PIPE).stdout

    confsave("save", "--force", "weekly", "--comment", "old")
    process, terminal = start_at_a_terminal([program, "save", "weekly", "--comment", "mine"], environment)
    screen = read_until(terminal, "[Yes/No] ")
    subprocess.run(f'confsave() {{ "{program}" "$@"; }}; {meanwhile}', shell=True, cwd=directory,
                   env=environment, check=True)
    for number, answer in enumerate(answers):
        os.write(terminal, f"{answer}\n".encode())
        screen += read_until(terminal, "[Yes/No] " if number + 1 < len(answers) else None)
    os.close(terminal)
    status = os.waitstatus_to_exitcode(os.waitpid(process, 0)[1])
    assert status == expected and screen.endswith(end), f"{case}: {status}, {screen!r}"
    is_told = "confsave: the snapshot 'weekly' was stored anew meanwhile.\r\n" in screen
    assert is_told == (len(answers) > 1), f"{case}: {screen!r}"
    if os.path.exists(f"{directory}/kept"):
        os.rename(f"{directory}/kept", f"{directory}/state/notes.db")
    rows = json.loads(confsave("list", "--json"))
    found = [row["comment"] + ("!" if row["pinned"] else "") for row in rows]
    assert found == stored, f"{case}: {found}"
    confsave("delete", "--force", "weekly")


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
        subprocess.run([program, "delete", "weekly"], env=environment, check=True)
        for case in MEANWHILE:
            save_meanwhile(program, directory, environment, case)


main()
