#!/usr/bin/env python3
"""The shell at a terminal starts no other program, whatever is typed and whatever the user has configured.
Letters beyond ASCII can be typed. It works where the line editor cannot be loaded.

    tests/editor_test.py PROGRAM

A line editor that runs its own commands, or an external editor, is a way out of a restricted account.
"""

import itertools
import json
import os
import pty
import select
import subprocess
import sys
import tempfile
import termios
import time

ESCAPE = "\x1b"
# Any key may be bound to what reads a command of the line editor, or edits the line elsewhere.
KEYS = ([ESCAPE + chr(code) for code in range(0x20, 0x7f)] + [chr(code) for code in range(0x01, 0x20)] +
        ["\x18" + chr(code) for code in range(0x01, 0x7f)] + ["\u00d8", "\u00f8"])
# What ends the line, the input, the process or its output.
ENDING = "\x03\x04\x13\x1a\x1c"
LEFT_OUT = {*ENDING, "\x0a", "\x0d", *("\x18" + key for key in ENDING)}
PROMPT = "confsave> "


class Shell:
    def __init__(self, program, environment):
        self.screen = ""
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            os.execve(program, [program, "shell"], environment)

    def read(self, seconds):
        """False at the end."""
        if not select.select([self.terminal], [], [], seconds)[0]:
            return True
        try:
            data = os.read(self.terminal, 65536)
        except OSError:
            return False
        self.screen += data.decode("utf-8", "replace")
        return bool(data)

    def type(self, keys, expected):
        """Types, and waits until so many prompts are on the screen."""
        os.write(self.terminal, keys.encode())
        end = time.monotonic() + 5
        while self.screen.count(PROMPT) < expected and time.monotonic() < end:
            assert self.read(0.1), f"the shell ended after {keys!r}: {self.screen[-200:]}"

    def wait_for_editor(self):
        """Until the line editor has switched the terminal's own editing off, after its prompt."""
        end = time.monotonic() + 5
        while termios.tcgetattr(self.terminal)[3] & termios.ICANON and time.monotonic() < end:
            time.sleep(0.005)

    def leave(self, keys=b"\x15\x0bexit\r"):
        os.write(self.terminal, keys)
        end = time.monotonic() + 5
        while self.read(0.1) and time.monotonic() < end:
            pass
        os.close(self.terminal)
        return os.waitstatus_to_exitcode(os.waitpid(self.process, 0)[1])


def try_key(program, environment, key):
    shell = Shell(program, environment)
    shell.type("", 1)
    shell.type(key + "bind -v\r", 2)
    shell.type("\x15\x0b" + ESCAPE + "v\r", 3)
    status = shell.leave()
    assert status == 0, f"after {key!r} the shell ended with {status}: {shell.screen}"


def try_letters(program, environment, config):
    """What is typed beyond ASCII is stored, and edited letter by letter; broken bytes are dropped."""
    os.makedirs(f"{config}/user")
    with open(f"{config}/user/gateway.conf", "w", encoding="ascii") as stream:
        stream.write("peer\n")
    environment = {**environment, "LC_ALL": "C.UTF-8"}
    shell = Shell(program, environment)
    shell.type("", 1)
    shell.wait_for_editor()
    os.write(shell.terminal, b"save letters --comment '\xe4\xc3f\x80")
    shell.type("ür ✓äø𝄞\x7f\x7fØ' --force\r", 2)
    status = shell.leave()
    listed = subprocess.run([program, "list", "--json"], env=environment, check=True,
                            stdout=subprocess.PIPE).stdout
    comments = [snapshot["comment"] for snapshot in json.loads(listed)]
    assert status == 0 and comments == ["für ✓äØ"], f"{status}, {comments}: {shell.screen}"


def try_interrupted_wait(program, environment, config):
    """After an interrupt the prompt has a line of its own."""
    with open(f"{config}/user/gateway.conf", "a", encoding="ascii") as stream:
        stream.write("changed\n")
    load = [program, "load", "letters", "--yes", "--no-keep", "--confirm-within", "1m"]
    subprocess.run(load, env=environment, check=True, stdout=subprocess.DEVNULL)
    shell = Shell(program, environment)
    shell.type("", 1)
    os.write(shell.terminal, b"revert --when-due\r")
    # Nothing says that it waits.
    time.sleep(1)
    shell.type("\x03", 2)
    screen = shell.screen
    shell.type("confirm\r", 3)
    status = shell.leave()
    assert status == 0 and screen.endswith(f"\n{PROMPT}"), f"{status}: {screen!r}"


def try_without_editor(program, environment, directory):
    with open(f"{directory}/libedit.so.2", "wb"):
        pass
    shell = Shell(program, {**environment, "LD_LIBRARY_PATH": directory})
    shell.type("", 1)
    shell.type("help\r", 2)
    shell.type("lis\x03", 3)
    shell.type("version\x04\x04", 4)
    shell.type("nonsense\r", 5)
    status = shell.leave(b"\x04")
    shown = shell.screen
    assert status == 0 and "lines cannot be edited: " in shown and "list the snapshots" in shown, shown
    assert "'nonsense'" in shown, shown


def main():
    program = os.path.realpath(sys.argv[1])
    with tempfile.TemporaryDirectory() as directory:
        for name in ("config", "state", "tmp"):
            os.mkdir(f"{directory}/{name}")
        pwned = f"{directory}/pwned"
        editor = f"{directory}/editor"
        with open(editor, "w", encoding="ascii") as stream:
            stream.write(f"#!/bin/sh\ntouch {pwned}\n")
        os.chmod(editor, 0o700)
        with open(f"{directory}/.editrc", "w", encoding="ascii") as stream:
            stream.write("bind -v\nbind -a v vi-histedit\nbind -s x '\\nsave configured\\n'\n")
        environment = {
            **os.environ, "TERM": "dumb", "HOME": directory, "EDITRC": f"{directory}/.editrc",
            "EDITOR": editor, "VISUAL": editor,
            "KELMOR_CONFIG_PATH": f"{directory}/config/", "KELMOR_DYNAMIC_DIR": f"{directory}/state",
            "KELMOR_TEMP_DIR": f"{directory}/tmp", "KELMOR_LOG_FILE": f"{directory}/log"}
        keys = [key for key in KEYS if key not in LEFT_OUT]
        for locale, key in itertools.product(("C", "C.UTF-8"), keys):
            try_key(program, {**environment, "LC_ALL": locale}, key)
            assert not os.path.exists(pwned), f"{key!r} led to an editor"
        try_letters(program, environment, f"{directory}/config")
        try_interrupted_wait(program, environment, f"{directory}/config")
        try_without_editor(program, environment, directory)
    print(f"{len(keys)} keys in two locales")


main()
