"""Other programs that keep files: each has a store of its own on the gateway of a Bench.

None of them keeps the failover file, which has 2 KB.
"""

import functools
import subprocess
import time


class Peer:
    """`new` makes an empty store. What else is measured returns seconds."""
    name = ""
    keeps_history = True

    def __init__(self, bench):
        self.bench, self.store = bench, bench.root / self.name.replace(" ", "-")
        self.run = functools.partial(bench.run, HOME=str(bench.root), RESTIC_PASSWORD="x",
                                     RESTIC_REPOSITORY=str(self.store),
                                     BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK="yes")

    def new(self):
        self.bench.clear(self.store)

    def know(self):
        """Takes the configuration for the saved one: its files may be new ones."""


class Tar(Peer):
    name = "tar"
    keeps_history = False
    after_save = after_restore = ""

    def shell(self, script, *words):
        return self.run("sh", "-ec", script, "sh", *words)

    def save(self, night=""):
        file = self.store / f"archive{night}"
        file.unlink(missing_ok=True)
        return self.shell(f'tar czf "$1" -C "$2" . {self.after_save}', file, self.bench.config)

    def restore(self, tree):
        return self.shell(f'tar xzf "$1" -C "$2" {self.after_restore}', self.store / "archive", tree)

    def verify(self):
        return self.run("tar", "tzf", self.store / "archive")

    def compare(self):
        return self.run("tar", "dzf", self.store / "archive", "-C", self.bench.config)


class SyncedTar(Tar):
    name = "tar + sync"
    verify = compare = None
    after_save = '&& sync "$1" "${1%/*}"'
    after_restore = '&& sync -f "$2"'


class Git(Peer):
    name = "git"

    def git(self, *words, tree=None):
        return self.run("git", f"--git-dir={self.store}/.git", f"--work-tree={tree or self.bench.config}",
                        "-c", "user.name=x", "-c", "user.email=x@example.com", "-c", "core.fsync=all",
                        *words)

    def new(self):
        super().new()
        self.run("git", "init", "-q", self.store)

    def save(self, night=""):
        return self.git("add", "-A") + self.git("commit", "-q", "--allow-empty", "-m", "x")

    def restore(self, tree):
        return self.git("checkout", "-q", "-f", "HEAD", "--", ".", tree=tree)

    def verify(self):
        return self.git("fsck", "--full")

    def compare(self):
        return self.git("status", "--porcelain")

    def know(self):
        self.compare()

    def list(self):
        return self.git("log", "--format=%s %cd")

    def fill(self, count):
        """As many commits of one tree, packed."""
        self.new()
        lines = "".join(f"commit refs/heads/master\ncommitter x <x@example.com> {number} +0000\n"
                        "data 1\nx\n" + ("M 644 inline a\ndata 1\nx\n" if number == 0 else "")
                        for number in range(count))
        subprocess.run(["git", f"--git-dir={self.store}/.git", "fast-import", "--quiet"], check=True,
                       input=lines.encode())
        self.git("symbolic-ref", "HEAD", "refs/heads/master")


class Restic(Peer):
    name = "restic"

    def new(self):
        super().new()
        self.run("restic", "-q", "init")

    def save(self, night=""):
        return self.run("restic", "-q", "backup", ".", cwd=self.bench.config)

    def restore(self, tree):
        return self.run("restic", "-q", "restore", "latest", "--target", tree)

    def verify(self):
        return self.run("restic", "-q", "check", "--read-data")

    def list(self):
        return self.run("restic", "snapshots")


class Borg(Peer):
    name = "borg"
    last = ""

    def new(self):
        super().new()
        self.run("borg", "init", "-e", "none", self.store)

    def save(self, night=""):
        self.last = f"{self.store}::{time.time_ns()}"
        return self.run("borg", "create", self.last, ".", cwd=self.bench.config)

    def restore(self, tree):
        return self.run("borg", "extract", self.last, cwd=tree)

    def verify(self):
        return self.run("borg", "check", "--verify-data", self.store)

    def list(self):
        return self.run("borg", "list", self.store)


def all_peers(bench):
    return [kind(bench) for kind in (Tar, SyncedTar, Git, Restic, Borg)]


def versions():
    """Of the programs, as they state it themselves."""
    def words(*command):
        return subprocess.check_output(command, text=True).splitlines()[0].split()
    return {"tar": words("tar", "--version")[-1], "gzip": words("gzip", "--version")[-1],
            "git": words("git", "--version")[2], "restic": words("restic", "version")[1],
            "borg": words("borg", "--version")[1]}
