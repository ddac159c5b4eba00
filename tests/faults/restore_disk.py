#!/usr/bin/env python3
"""Fills each of the four directories under a restore of the typed library, and makes one read-only.

    restore_disk.py OPERATE [--full] [--seed=N]

The directories are file systems of their own. With too little room in one, the restore is refused before
the first change, and names it; nothing is left. With more room, it is done. A file system that becomes
read-only before the exchange, or in the middle of it, is reported, and once it can be written again a
recovery leaves the tree of before. Nobody else can read the storage during the exchange, as a save would.
"""

import os
import pathlib
import random
import re
import shutil
import signal
import sqlite3
import subprocess
import time

from gateway import ETC, Failure, Gateway, main, remove, require
from restoring import CHANGING, COMMON, Entry, Restoring, Scenario, difference

STEP = 4096
ROOM = {"config": 4, "etc": 2, "state": 8, "temp": 4}  # MiB
NO_SPACE = 16
FILLER = "filler"


def noise(seed, size):
    return Entry("file", random.Random(seed).randbytes(size), 0o640)


def tree(version):
    return {"config": {**COMMON, **{f"gw{number}": noise(version + number, 9000) for number in range(4)},
                       "user/gateway.conf": noise(version + 7, 30000)},
            "etc": {"failover.ini": noise(version + 8, 20000), "failover.ini.crg": noise(version + 9, 100)}}


SCENARIO = Scenario("full disks", [], tree(0), tree(100), False)


class Divided(Gateway):
    """Each directory is a file system of its own."""

    def __init__(self, program):
        super().__init__(program)
        self.places = {"config": self.config, "etc": ETC, "state": self.state, "temp": self.temp}
        for name, place in self.places.items():
            subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={ROOM[name]}m,mode=755", "tmpfs", place],
                           check=True)

    def __exit__(self, *words):
        super().__exit__(*words)
        for place in self.places.values():
            subprocess.run(["umount", place], check=False)
        shutil.rmtree(self.root, ignore_errors=True)

    def restore_state(self):
        for path in self.state.iterdir():
            remove(path)
        shutil.copytree(self.root / "kept", self.state, dirs_exist_ok=True)
        self.remove_temporary_files()


class Filled(Restoring):
    """A restore beside a file that takes the room of a directory."""

    def look(self):
        return {path: one for path, one in super().look().items() if not path.endswith(f"/{FILLER}")}

    def fill(self, place, steps):
        with (place / FILLER).open("wb") as filler:
            room = os.statvfs(place).f_bavail * os.statvfs(place).f_frsize // STEP - steps
            require(room >= 0, place, "is too small")
            if room > 0:
                os.posix_fallocate(filler.fileno(), 0, room * STEP)


def strike(restoring, place, steps):
    """Whether the restore was done with that much room."""
    restoring.reset()
    restoring.fill(place, steps)
    _, output = restoring.load()
    said = re.search(r"^exception code (\d+) number -?\d+ (\w+) (.*): ", output, re.M)
    try:
        if said is None:
            require(output.endswith("done\n"), "the answer is", output)
        else:
            code, aftermath, path = said.groups()
            require(int(code) == NO_SPACE and path.startswith(str(place)), "the answer is", output)
            require(aftermath == "untouched", "the refusal came after the first change:", output)
            require(restoring.look() == restoring.before, difference(restoring.look(), restoring.before))
        (place / FILLER).unlink()
        status, output = restoring.recover()
        require(status == 0, "the recovery ended with", status, output)
        restoring.require_finished("after" if said is None else "before")
    except Exception as failure:
        raise type(failure)(f"{place} with {steps} * {STEP} bytes: {failure}") from failure
    return said is None


def filled(restoring, full, source):
    """The sizes with which a restore was refused, and those with which it was done, by directory."""
    found = {}
    for name, place in restoring.gateway.places.items():
        refused = done = 0
        if full:
            for steps in range(ROOM[name] << 20):
                if done == 4:
                    break
                done = done + 1 if strike(restoring, place, steps) else 0
                refused += done == 0
        else:
            # Where the refusals end, the last thing that takes room fails.
            too_little, enough = 0, 150
            for steps in (0, 150, source.randrange(1, 40)):
                was_done = strike(restoring, place, steps)
                done, refused = done + was_done, refused + (not was_done)
            while enough - too_little > 1:
                steps = (too_little + enough) // 2
                if strike(restoring, place, steps):
                    enough, done = steps, done + 1
                else:
                    too_little, refused = steps, refused + 1
        require(done > 0 and refused > 0, name, "refused", refused, "and done", done)
        found[name] = (refused, done)
    return found


# A file system that becomes read-only

def remount(place, how):
    subprocess.run(["mount", "-o", f"remount,{how}", place], check=True)


def wait_until_stopped(gateway, process):
    """The stopped process, which strace reports."""
    end = time.monotonic() + 20
    while time.monotonic() < end:
        if "stopped by SIGSTOP" in (gateway.root / "trace").read_text("latin-1"):
            children = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children")
            return int(children.read_text("ascii").split()[0])
        time.sleep(0.01)
    process.kill()
    raise Failure("the restore does not stop")


def is_locked(gateway):
    connection = sqlite3.connect(gateway.database, timeout=0)
    try:
        connection.execute("select count(*) from Config").fetchall()
        return False
    except sqlite3.OperationalError as error:
        return "locked" in str(error)
    finally:
        connection.close()


def points_around_exchange(restoring):
    """The last call before the first exchange, and one in the middle of the exchanges."""
    restoring.reset()
    restoring.load(restoring.tracer(",".join(CHANGING)))
    calls = [(call, number, line) for call, number, line in restoring.traced()
             if re.search(r"\) += \d", line)]
    moves = [position for position, call in enumerate(calls) if "RENAME_" in call[2]]
    return [calls[moves[0] - 1][:2], calls[moves[len(moves) // 2]][:2]]


def stopped(restoring, call, number):
    """A restore that was stopped at a call, and the number of its process."""
    restoring.reset()
    prefix = restoring.tracer(call, f"inject={call}:signal=STOP:when={number}")
    (restoring.gateway.root / "trace").write_bytes(b"")
    process = restoring.gateway.start("typed-load", "weekly", *restoring.words, prefix=prefix)
    return process, wait_until_stopped(restoring.gateway, process)


def others_are_kept_out(restoring):
    """Also by a restore that does not write to the storage before its check."""
    for call, number in points_around_exchange(restoring):
        process, child = stopped(restoring, call, number)
        is_kept_out = is_locked(restoring.gateway)
        os.kill(child, signal.SIGCONT)
        process.wait(60)
        process.stdout.close()
        require(is_kept_out, "others can read the storage, and pack a mixture")
        restoring.require_finished("after")


def made_read_only(restoring, place, call, number):
    process, child = stopped(restoring, call, number)
    try:
        remount(place, "ro")
        os.kill(child, signal.SIGCONT)
        process.wait(60)
        output = process.stdout.read().decode("utf-8", "replace")
        process.stdout.close()
        now = restoring.look()
    finally:
        remount(place, "rw")
    said = re.search(r"^exception code \d+ number \d+ (untouched|put_back|mixed) ", output, re.M)
    require(said is not None, "the answer is", output)
    live = {path: one for path, one in now.items() if "/.confsave-restore-" not in path}
    changed = difference(live, restoring.before)
    require(bool(changed) == (said.group(1) == "mixed"), "the answer is", output, "and", changed)
    status, output = restoring.recover()
    require(status == 0, "the recovery ended with", status, output)
    restoring.require_finished("before")
    return said.group(1)


def campaign(program, full, source):
    with Divided(program) as gateway:
        restoring = Filled(gateway, SCENARIO)
        found = filled(restoring, full, source)
        answers = []
        for call, number in points_around_exchange(restoring):
            for place in (gateway.config, ETC) if full else (gateway.config,):
                answers.append(made_read_only(restoring, place, call, number))
        others_are_kept_out(Filled(gateway, SCENARIO._replace(words=["no-keep", "check=true"])))
    require("mixed" in answers, "no file system was read-only in the middle of an exchange")
    sizes = ", ".join(f"{name} {refused} and {done}" for name, (refused, done) in found.items())
    return (f"refused and done with a directory full up to some step of 4 KiB: {sizes}; "
            f"read-only in the middle: {', '.join(answers)}")


main(campaign)
