#!/usr/bin/env python3
"""A restore takes itself back unless it is confirmed: in each state, and whatever is lost.

    tests/pending_test.py PROGRAM PAGE CLOCK [TEST...]

The table of states is that of PAGE, docs/restore.md: every cell is tried. CLOCK is a library that gives a
program another time of day.
"""

import json
import os
import pathlib
import pty
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

ETC = pathlib.Path("/mnt/main/etc")
BOOT = "/proc/sys/kernel/random/boot_id"
WINDOW = 10
# The time that a revert may take after the deadline.
PUNCTUAL = 2
VERBS = {"load": ["load", "--yes", "--no-keep", "old"], "save X": ["save", "--force", "new"],
         "save": ["save", "another"], "delete X": ["delete", "new"],
         "import": ["import", "FILE", "--as", "imported"],
         "revert --if-due": ["revert", "--if-due"],
         "status": ["status", "--json"]}
# As the journal numbers them.
PREPARED, EXCHANGED, REVERTING = 1, 2, 6


class Gateway:
    """A gateway with the snapshots "old" and "new", and the configuration of the first."""

    def __init__(self, program):
        self.program = program
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="confsave-pending-"))
        for name in ("config/user", "config/hub", "state", "tmp"):
            (self.root / name).mkdir(parents=True)
        self.state = self.root / "state"
        self.environment = {
            **os.environ, "TZ": "UTC", "KELMOR_CONFIG_PATH": f"{self.root}/config/",
            "KELMOR_DYNAMIC_DIR": str(self.state), "KELMOR_TEMP_DIR": str(self.root / "tmp"),
            "KELMOR_LOG_FILE": str(self.root / "log")}
        for directory in (self.state, self.root / "tmp"):
            directory.chmod(0o700)
        self.kept = None
        for name in ("new", "old"):
            self.configure(name)
            self.must("save", name)
        shutil.copytree(self.state, self.root / "copy")
        self.must("export", "new", str(self.root / "exported"))

    def configure(self, name):
        for path in self.paths():
            path.write_text(f"{name} {path.name}\n", encoding="ascii")
            os.utime(path, (1_500_000_000, 1_500_000_000))

    def reset(self):
        """As it was when it was made."""
        self.sweep()
        shutil.rmtree(self.state)
        shutil.copytree(self.root / "copy", self.state)
        self.configure("old")

    def paths(self):
        return [self.root / "config/user/gateway.conf", self.root / "config/hub/key",
                ETC / "failover.ini", ETC / "failover.ini.crg", ETC / "failoverd-config.crg"]

    def seen(self):
        return {str(path): (path.read_text(encoding="ascii"), path.stat().st_ino) for path in self.paths()}

    def live(self):
        """"old" or "new", if all files are."""
        words = {content.split()[0] for content, _ in self.seen().values()}
        return words.pop() if len(words) == 1 else f"a mixture: {sorted(words)}"

    def run(self, *words, prefix=(), check=False, **options):
        done = subprocess.run([*prefix, self.program, *words], stdin=subprocess.DEVNULL, text=True,
                              capture_output=True, timeout=60, check=False,
                              **{"env": self.environment, **options})
        if check and done.returncode != 0:
            raise AssertionError(f"{words}: {done.returncode}: {done.stderr}")
        return done

    def must(self, *words, **options):
        return self.run(*words, check=True, **options)

    def load(self, window=f"{WINDOW}s", **options):
        """Makes "new" pending. The deadline, in milliseconds since the boot."""
        self.kept = self.seen()
        self.must("load", "--yes", "--no-keep", "new", "--confirm-within", window, **options)
        assert self.live() == "new", self.live()
        return self.journal("select deadline from restore")[0][0]

    def journal(self, statement):
        database = sqlite3.connect(self.state / "restore.db")
        try:
            with database:
                return database.execute(statement).fetchall()
        finally:
            database.close()

    def status(self):
        return json.loads(self.run("status", "--json").stdout)

    def waiters(self):
        """The processes that wait for the end of this gateway's window."""
        found = []
        for entry in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                words = (entry / "cmdline").read_bytes().split(b"\0")
                environment = (entry / "environ").read_bytes()
            except OSError:
                continue
            if b"--when-due" in words and str(self.state).encode() in environment:
                found.append(int(entry.name))
        return found

    def kill_waiters(self):
        for process in self.waiters():
            os.kill(process, signal.SIGKILL)

    def require_before(self):
        """The very files that were there, and nothing left."""
        assert self.seen() == self.kept, (self.seen(), self.kept)
        left = [*(self.root / "config").glob(".confsave-*"), *ETC.glob(".confsave-*")]
        assert not left, left
        assert self.status()["pending"] is None

    def sweep(self):
        self.kill_waiters()
        for directory in (self.root / "config", ETC):
            for path in directory.glob(".confsave-*"):
                shutil.rmtree(path)

    def close(self):
        self.sweep()
        shutil.rmtree(self.root)
        for path in self.paths():
            path.unlink(missing_ok=True)


def since_boot():
    return time.clock_gettime_ns(time.CLOCK_BOOTTIME) // 1_000_000


def sleep_until(deadline):
    time.sleep(max(deadline - since_boot(), 0) / 1000)


def wait_for(what, condition, seconds):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, f"{what} did not happen within {seconds} s"
        time.sleep(0.02)


class OtherBoot:
    """Whoever looks finds another identity of the boot."""

    def __init__(self, gateway):
        self.file = gateway.root / "boot_id"
        self.file.write_text("00000000-1111-2222-3333-444444444444\n", encoding="ascii")

    def __enter__(self):
        subprocess.run(["mount", "--bind", self.file, BOOT], check=True)

    def __exit__(self, *_):
        subprocess.run(["umount", BOOT], check=True)


# ---- The table

def cells(page):
    """(state, verb, exit status, "old" or "new") of the only table whose first column is State."""
    rows = [[cell.strip() for cell in line.strip("|\n").split("|")]
            for line in page.read_text(encoding="utf-8").splitlines() if line.startswith("|")]
    first = [row[0] for row in rows].index("State")
    verbs = rows[first][1:]
    for row in rows[first + 2:]:
        if len(row) != len(verbs) + 1:
            break
        for verb, cell in zip(verbs, row[1:]):
            status, live = cell.split()
            yield row[0], verb, int(status), live


class Checking:
    """A restore whose check runs as long as this lives."""

    def __init__(self, gateway):
        self.gate = gateway.root / "gate"
        os.mkfifo(self.gate)
        self.process = subprocess.Popen(
            [gateway.program, "load", "--yes", "--no-keep", "new", "--check", f"cat {self.gate}"],
            env=gateway.environment, stdin=subprocess.DEVNULL)
        wait_for("the check", lambda: (gateway.status()["pending"] or {}).get("name") == "new", 10)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.gate.write_text("", encoding="ascii")
        assert self.process.wait(10) == 0
        self.gate.unlink()


def try_cell(gateway, state, words):
    if state == "checking":
        with Checking(gateway):
            return gateway.run(*words), gateway.live()
    begin(gateway, state)
    if state == "restarted":
        with OtherBoot(gateway):
            return gateway.run(*words), gateway.live()
    return gateway.run(*words), gateway.live()


def begin(gateway, state):
    if state != "none":
        gateway.load("1h")
        gateway.kill_waiters()
    changes = {"interrupted": f"state = {PREPARED}", "reverting": f"state = {REVERTING}",
               "confirmed": f"state = {EXCHANGED}", "due": "deadline = 1"}
    if state in changes:
        gateway.journal(f"update restore set {changes[state]}")


def in_each_state(program, page, _):
    count, gateway = 0, Gateway(program)
    for state, verb, status, live in cells(page):
        gateway.reset()
        words = [str(gateway.root / "exported") if word == "FILE" else word
                 for word in VERBS.get(verb, [verb])]
        done, found = try_cell(gateway, state, words)
        assert (done.returncode, found) == (status, live), (
            state, verb, done.returncode, found, done.stdout, done.stderr)
        mentions = state in ("checking", "pending") and verb in ("save", "list")
        assert ("the restore of 'new@" in done.stderr) >= mentions, (state, verb, done.stderr)
        if verb == "status":
            require_status(state, json.loads(done.stdout))
        count += 1
    gateway.close()
    assert count == 88, count
    return f"{count} cells"


def restarted(program, page, _):
    """Whatever the state, the boot leaves nothing that is not finished."""
    gateway = Gateway(program)
    expected = {state: live for state, verb, _, live in cells(page) if verb == "recover"}
    for state in expected.keys() - {"checking"}:
        gateway.reset()
        begin(gateway, state)
        with OtherBoot(gateway):
            gateway.must("recover")
            wanted = "old" if state == "pending" else expected[state]
            assert gateway.live() == wanted, (state, gateway.live())
            answer = gateway.status()
        assert answer["attention"] == [], (state, answer)
    gateway.close()
    return f"{len(expected) - 1} states"


def require_status(state, answer):
    codes = [one["code"] for one in answer["attention"]]
    if state == "none":
        assert codes == [] and answer["pending"] is None and answer["interrupted"] is None, answer
    elif state in ("checking", "pending", "due", "restarted"):
        assert codes == ["pending"] and answer["pending"]["name"] == "new", answer
        assert answer["interrupted"] is None, answer
        left = {"checking": [None], "pending": range(3590, 3601)}.get(state, [0])
        assert answer["pending"]["seconds_left"] in left, answer
    else:
        assert codes == ["interrupted"] and answer["interrupted"]["name"] == "new", answer


# ---- What people fear

def locked_out(program, _, __):
    """The restore cuts the session that it came by: every process of the session is killed."""
    gateway = Gateway(program)
    for number in (signal.SIGKILL, signal.SIGHUP):
        gateway.kept = gateway.seen()
        session, terminal = pty.fork()
        if session == 0:
            line = f"{program} load --yes --no-keep new --confirm-within {WINDOW}s; sleep 1000"
            os.execve("/bin/sh", ["sh", "-c", line], gateway.environment)
        wait_for("the restore", lambda: (gateway.status()["pending"] or {}).get("name") == "new", 20)
        deadline = gateway.journal("select deadline from restore")[0][0]
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if os.getsid(int(process.name)) == session:
                    os.kill(int(process.name), number)
            except ProcessLookupError:
                pass
        os.close(terminal)
        os.waitpid(session, 0)
        assert len(gateway.waiters()) == 1, gateway.waiters()
        sleep_until(deadline - 500)
        assert gateway.live() == "new"
        sleep_until(deadline + 1000 * PUNCTUAL)
        gateway.require_before()
        wait_for("the end of the waiter", lambda: not gateway.waiters(), 5)
    gateway.close()
    return f"back within {PUNCTUAL} s of the deadline"


def waiter_killed(program, _, __):
    """Only punctuality is lost."""
    gateway = Gateway(program)
    for words in (["list"], ["revert", "--if-due"], ["recover"], ["save", "another", "--force"]):
        gateway.load("1h")
        gateway.kill_waiters()
        gateway.journal("update restore set deadline = 1")
        assert gateway.live() == "new"
        gateway.must(*words)
        gateway.require_before()
    gateway.close()
    return "the next command, the timer and the boot take it back"


def confirmed_or_taken_back(program, _, __):
    """Who waits ends soon after the restore has ended."""
    gateway = Gateway(program)
    for verb in ("revert", "confirm"):
        gateway.load("1h")
        assert len(gateway.waiters()) == 1
        gateway.must(verb)
        wait_for("the end of the waiter", lambda: not gateway.waiters(), 7)
    assert gateway.live() == "new"
    gateway.close()
    return "no waiter stays"


def clock_set(program, _, clock):
    """A year forward or back changes nothing: neither for who waits, nor for who looks."""
    gateway = Gateway(program)
    for seconds in (31_536_000, -31_536_000):
        shifted = {**gateway.environment, "LD_PRELOAD": clock, "CLOCK_SHIFT": str(seconds),
                   "ASAN_OPTIONS": "verify_asan_link_order=0"}
        deadline = gateway.load(env=shifted if seconds > 0 else gateway.environment)
        gateway.must("revert", "--if-due", env=shifted)
        gateway.must("list", env=shifted)
        assert gateway.live() == "new"
        left = json.loads(gateway.run("status", "--json", env=shifted).stdout)["pending"]
        assert 0 < left["seconds_left"] <= WINDOW, left
        year = int(left["deadline_utc"][:4])
        assert year == time.gmtime(time.time() + seconds).tm_year, left
        sleep_until(deadline - 500)
        assert gateway.live() == "new"
        sleep_until(deadline + 1000 * PUNCTUAL)
        gateway.require_before()
    gateway.close()
    return "a year forward, a year back"


def losses(program, _, __):
    """A revert needs neither room, nor the notes, nor the storage."""
    def fill(gateway):
        (gateway.state / "filler").write_bytes(b"")
        with open(gateway.state / "filler", "wb", buffering=0) as stream:
            try:
                while stream.write(b"x" * 65536):
                    pass
            except OSError:
                pass

    cases = {"full": fill,
             "notes": lambda gateway: (gateway.state / "notes.db").write_bytes(b"no database"),
             "no notes": lambda gateway: (gateway.state / "notes.db").unlink(),
             "no storage": lambda gateway: (gateway.state / "storage.db").unlink(),
             "no database": lambda gateway: (gateway.state / "storage.db").write_bytes(b"no database")}
    for name, lose in cases.items():
        for edits in (False, True):
            gateway = Gateway(program)
            on_a_small_disk(gateway)
            gateway.load("1h")
            gateway.kill_waiters()
            if edits:
                gateway.paths()[0].write_text("edited\n", encoding="ascii")
            lose(gateway)
            gateway.journal("update restore set deadline = 1")
            done = gateway.run("revert", "--if-due")
            assert done.returncode == 0, (name, edits, done.stderr)
            assert gateway.seen() == gateway.kept, (name, edits)
            if edits:
                require_kept(gateway, name, done)
            subprocess.run(["umount", gateway.state], check=True)
            gateway.close()
    return f"{len(cases)} losses, with and without an edit"


def on_a_small_disk(gateway):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=3m,mode=700", "tmpfs", gateway.state], check=True)
    shutil.copytree(gateway.root / "copy", gateway.state, dirs_exist_ok=True)


def require_kept(gateway, name, done):
    """What was edited is in a snapshot, or in a file that is named."""
    found = re.search(r"(/\S*/\.confsave-restore-\S+): '\S+' is not", done.stderr)
    if found:
        assert pathlib.Path(found[1]).read_text(encoding="ascii") == "edited\n", name
        return
    kept = re.search(r"kept as '(reverted-[0-9-]+)'", done.stdout)
    assert kept, (name, done.stdout, done.stderr)
    shown = gateway.must("show", kept[1], "--file", str(gateway.paths()[0]))
    assert shown.stdout == "edited\n", name


TESTS = {"states": in_each_state, "lockout": locked_out, "restarted": restarted, "killed": waiter_killed,
         "waiters": confirmed_or_taken_back, "clock": clock_set, "losses": losses}


def main():
    program, page, clock = sys.argv[1:4]
    for name in sys.argv[4:] or TESTS:
        start = time.monotonic()
        answer = TESTS[name](os.path.realpath(program), pathlib.Path(page), os.path.realpath(clock))
        print(f"{name}: {answer} ({time.monotonic() - start:.0f} s)", flush=True)


main()
