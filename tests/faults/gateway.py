"""A gateway in a directory of its own, and the program that operates on it."""

import ctypes
import os
import pathlib
import random
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

ETC = pathlib.Path("/mnt/main/etc")
FAILOVER = ["failover.ini", "failover.ini.crg", "failoverd-config.crg"]
CONFIG = ["user/gateway.conf", "user/gateway.key", "user/filter.conf", "user/nat.conf", "user/users.conf",
          "gw1.conf", "hub/out"]
DATABASE = ["user/config.db", "user/config.idx"]


# Orphans of a killed host become ours, so that their end can be waited for.
PR_SET_CHILD_SUBREAPER = 36
ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1)


class Failure(Exception):
    """Something that must hold does not."""


def require(condition, *what):
    if not condition:
        raise Failure(" ".join(map(str, what)))


def remove(path):
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path)
    else:
        path.unlink()


def files(directory):
    return {str(path.relative_to(directory)): path.read_bytes()
            for path in directory.rglob("*") if path.is_file()}


def shortened(found):
    """Files with as much of their contents as a person reads."""
    if isinstance(found, str):
        return found
    return {name: (contents[:20], len(contents)) for name, contents in found.items()}


def has_hot_journal(state):
    """Whether whoever opens the storage next has to undo something."""
    journal = state / "storage.db-journal"
    return journal.exists() and any(journal.read_bytes()[:28])


class Gateway:
    def __init__(self, program, parent=None):
        if os.environ.get("CONFSAVE_SANDBOX") != "1":
            sys.exit("These tests fill /mnt/main/etc. Run them by script/faults or ctest.")
        self.program = os.path.realpath(program)
        self.confsave = pathlib.Path(self.program).parent.parent / "console" / "confsave"
        # The sandbox's own file system: in memory, and gone with it.
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="confsave-faults-", dir=parent or "/mnt"))
        self.config, self.state = self.root / "config", self.root / "state"
        self.temp = self.root / "temp"
        for directory in (self.config / "user", self.config / "hub", self.state, self.temp):
            directory.mkdir(parents=True)
        self.database = self.state / "storage.db"
        # Says that it waits for the end of a window, and does not.
        self.waiter = self.root / "waiter"
        self.waiter.write_text("#!/bin/sh\nprintf . >&3\n", encoding="ascii")
        self.waiter.chmod(0o700)
        self.targets = 0
        self.inspector = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.inspector is not None:
            self.inspector.stdin.close()
            self.inspector.wait()
        for path in ETC.iterdir():
            remove(path)
        shutil.rmtree(self.root, ignore_errors=True)

    # What is configured.

    def write_configuration(self, content, size=0):
        """Every file says `content` and its own name; `size` bytes more that do not compress."""
        filler = random.Random(content).randbytes(size)
        for directory, names in ((self.config, CONFIG + DATABASE), (ETC, FAILOVER)):
            for name in names:
                (directory / name).write_bytes(f"{content} {name}\n".encode() + filler)

    def configuration(self):
        return {str(path): path.read_bytes()
                for directory, names in ((self.config, CONFIG + DATABASE), (ETC, FAILOVER))
                for path in (directory / name for name in names) if path.exists()}

    def expected_files(self, content, size=0):
        filler = random.Random(content).randbytes(size)
        return {name: f"{content} {name}\n".encode() + filler for name in CONFIG + DATABASE + FAILOVER}

    # What is run.

    def environment(self, **faults):
        return {**os.environ, "FAULT_WAITER": str(self.waiter),
                "KELMOR_CONFIG_PATH": f"{self.config}/", "KELMOR_DYNAMIC_DIR": str(self.state),
                "KELMOR_TEMP_DIR": str(self.temp), "KELMOR_LOG_FILE": str(self.root / "log"),
                **{f"FAULT_{key}": str(value) for key, value in faults.items()}}

    def start(self, *words, prefix=(), typed="", **faults):
        """A process with a group of its own."""
        environment = self.environment(**faults)
        if any("strace" in word for word in prefix):
            # A sanitizer that looks for leaks cannot do so while it is traced.
            environment["ASAN_OPTIONS"] = "detect_leaks=0"
        process = subprocess.Popen([*prefix, self.program, *map(str, words)], env=environment,
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                   start_new_session=True)
        try:
            process.stdin.write(typed.encode())
            process.stdin.close()
        except BrokenPipeError:
            pass
        return process

    def run(self, *words, timeout=60, **options):
        """The exit status and all output."""
        process = self.start(*words, **options)
        try:
            process.wait(timeout)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            raise Failure("hangs:", *words, options) from None
        output = process.stdout.read().decode("utf-8", "replace")
        process.stdout.close()
        return process.returncode, output

    def do(self, *words, **options):
        status, output = self.run(*words, **options)
        require(status == 0, words, "ended with", status, output)
        return output

    def steps_of(self, *words, **options):
        """The number of steps of an operation that meets no fault."""
        self.do(*words, COUNT=self.root / "steps", **options)
        return int((self.root / "steps").read_text())

    def wait_for_group(self, process):
        """Until the last of the process's children is gone as well."""
        end = time.monotonic() + 30
        while time.monotonic() < end:
            try:
                while os.waitpid(-process.pid, os.WNOHANG)[0]:
                    pass
            except ChildProcessError:
                return
            time.sleep(0.002)
        raise Failure("a child lives on")

    def scratch_directories(self):
        return [path for directory in (self.config, ETC, self.temp) for path in directory.iterdir()
                if len(path.name) == 6 and path.name.isalnum()]

    def remove_temporary_files(self):
        for path in self.temp.iterdir():
            remove(path)

    def remove_scratch_directories(self):
        for path in self.scratch_directories():
            remove(path)

    # What must hold.

    def query(self, sql):
        connection = sqlite3.connect(self.database, isolation_level=None)
        try:
            return connection.execute(sql).fetchall()
        finally:
            connection.close()

    def require_integrity(self):
        require(self.query("pragma integrity_check") == [("ok",)], "the database is damaged")

    def keep_state(self):
        shutil.copytree(self.state, self.root / "kept", dirs_exist_ok=True)

    def restore_state(self):
        shutil.rmtree(self.state)
        shutil.copytree(self.root / "kept", self.state)
        self.remove_temporary_files()

    def require_whole_files(self, *contents, size=0):
        """The live configuration: each file is there and is one of those; the database may be gone."""
        now = self.configuration()
        for directory, names in ((self.config, CONFIG + DATABASE), (ETC, FAILOVER)):
            for name in names:
                path = str(directory / name)
                require(path in now or name in DATABASE, name, "is gone")
                allowed = [self.expected_files(content, size)[name] for content in contents]
                require(path not in now or now[path] in allowed, name, "is neither of", contents)

    def loaded(self, name, verb="load"):
        """The files of a snapshot, or None where there is no such snapshot."""
        self.targets += 1
        target = self.root / f"target{self.targets}"
        target.mkdir()
        status, output = self.run(verb, name, f"{target}/")
        if status != 0:
            require(output == "status 0 \n", name, "does not load:", output)
            return None
        found = files(target)
        shutil.rmtree(target)
        return found

    def require_loads(self, name, *contents, verb="load", may_be_missing=False, size=0):
        """The snapshot is whole, and is that of one of the contents."""
        found = self.loaded(name, verb)
        if found is None and may_be_missing:
            return
        require(found is not None, name, "is lost")
        expected = [self.expected_files(content, size) for content in contents]
        require(found in expected, name, "is not whole:", shortened(found))


def main(campaign):
    """campaign(program, full, seed) returns a line of figures."""
    program, full, seed = sys.argv[1], "--full" in sys.argv, 1
    for word in sys.argv[2:]:
        if word.startswith("--seed="):
            seed = int(word.removeprefix("--seed="))
    start = time.monotonic()
    try:
        figures = campaign(program, full, random.Random(seed))
    except (Failure, sqlite3.Error) as failure:
        sys.exit(f"{os.path.basename(sys.argv[0])}: {failure}")
    print(f"{figures}; {time.monotonic() - start:.0f} s, seed {seed}")
