"""Restores by the typed library: what they begin with, and what must hold after a fault in one."""

import collections
import os
import re
import signal
import sqlite3
import stat
import struct
import subprocess
import zlib

from gateway import ETC, Failure, remove, require

CHANGING = ("chmod chown copy_file_range fallocate fchmod fchmodat fchown fchownat fdatasync fremovexattr "
            "fsetxattr fsync ftruncate lchown link linkat lremovexattr lsetxattr mkdir mkdirat mknod "
            "mknodat openat pwrite64 pwritev removexattr rename renameat renameat2 rmdir setxattr symlink "
            "symlinkat syncfs truncate unlink unlinkat utimensat write writev").split()
# What the state directory may have; in addition SQLite's journals, if nothing is to be rolled back.
LASTING = {"storage.db", "storage.db-reserve", "notes.db", "restore.db", "confsave.lock", "restore.lock"}
ROWS = "select name, version, keybase, etc, type, save_time from Config where name = 'weekly'"
KINDS = {stat.S_IFDIR: "directory", stat.S_IFREG: "file", stat.S_IFLNK: "link"}
# Their own commands make a file system without an exchange of two files.
NO_EXCHANGE = ["-e", "inject=renameat2:error=EINVAL"]

Entry = collections.namedtuple("Entry", "kind content mode owner time extras",
                               defaults=(b"", 0o640, 0, 0, None))
Seen = collections.namedtuple("Seen", "kind mode owner time content extras group inode")


def file(text, mode=0o640, owner=0, time=0, extras=None):
    return Entry("file", text.encode() * 40, mode, owner, time, extras)


def directory(mode=0o750, owner=0):
    return Entry("directory", b"", mode, owner)


def link(target):
    return Entry("link", target.encode())


def same_file(path):
    """A hard link to a file that stands before it in the tree."""
    return Entry("same", path.encode())


def access_list():
    """Of the owner, one more user, and the group."""
    entries = [(0x01, 6, 0xffffffff), (0x02, 4, 0), (0x04, 4, 0xffffffff), (0x10, 4, 0xffffffff),
               (0x20, 0, 0xffffffff)]
    return struct.pack("<I", 2) + b"".join(struct.pack("<HHI", *entry) for entry in entries)


EXTRAS = {"user.origin": b"by hand", "system.posix_acl_access": access_list()}


def set_owner(path, owner):
    try:
        os.chown(path, owner, owner, follow_symlinks=False)
    except OSError:
        pass  # root of a namespace has no other users


def set_extras(path, extras):
    for name, value in extras.items():
        try:
            os.setxattr(path, name, value)
        except OSError:
            pass  # an older kernel has none of them on a file system in memory


def plant(base, name, entry):
    path, number = base / name, zlib.crc32(name.encode()) % 1_000_000
    if entry.kind == "directory":
        path.mkdir(exist_ok=True)
    elif entry.kind == "link":
        path.symlink_to(entry.content.decode())
    elif entry.kind == "same":
        os.link(base / entry.content.decode(), path)
        return
    else:
        path.write_bytes(entry.content)
    set_owner(path, entry.owner)
    if entry.kind != "link":
        path.chmod(entry.mode)
        set_extras(path, entry.extras or {})
    when = (entry.time or 1_600_000_000 + number) * 1_000_000_000 + number + 1
    os.utime(path, ns=(when, when), follow_symlinks=False)


def clear(base):
    for path in base.iterdir():
        remove(path)


def grow(gateway, tree):
    """Makes the live configuration this tree: {"config" or "etc": {name: entry}}."""
    for base, names in ((gateway.config, tree["config"]), (ETC, tree["etc"])):
        clear(base)
        for name, entry in names.items():
            plant(base, name, entry)


def content_of(path, kind):
    if kind == "file":
        return path.read_bytes()
    return os.readlink(path).encode() if kind == "link" else b""


def see(base):
    """Each file below `base`, and itself."""
    found, groups = {}, {}
    for path in [base, *sorted(base.rglob("*"))]:
        status = path.lstat()
        kind = KINDS[stat.S_IFMT(status.st_mode)]
        extras = {name: os.getxattr(path, name, follow_symlinks=False)
                  for name in os.listxattr(path, follow_symlinks=False)}
        found[str(path)] = Seen(kind, stat.S_IMODE(status.st_mode), (status.st_uid, status.st_gid),
                                0 if kind == "directory" else status.st_mtime_ns, content_of(path, kind),
                                tuple(sorted(extras.items())),
                                groups.setdefault(status.st_ino, str(path)) if kind != "directory" else "",
                                status.st_ino)
    return found


def without_inodes(seen):
    return {path: one._replace(inode=0) for path, one in seen.items()}


def in_whole_seconds(seen):
    return seen._replace(time=seen.time // 1_000_000_000, extras=(), inode=0)


def rounded(seen):
    """As a restore that replaces every file leaves a tree."""
    return {path: one._replace(time=one.time // 1_000_000_000, inode=0) for path, one in seen.items()}


def difference(found, expected):
    """The first few paths in which two views differ, for a person."""
    lines = []
    for path in sorted(found.keys() | expected.keys()):
        a, b = found.get(path), expected.get(path)
        if a is None or b is None:
            lines.append(f"{path} is {'gone' if a is None else 'there'}")
        elif a != b:
            fields = [name for name in Seen._fields if getattr(a, name) != getattr(b, name)]
            lines.append(f"{path} differs in {', '.join(fields)}")
    return "; ".join(lines[:6])


class Scenario(collections.namedtuple("Scenario", "name words before stored exact")):
    """What is restored over what; `words` are those behind "typed-load weekly"."""


class Restoring:
    """One scenario in a gateway, again and again."""

    def __init__(self, gateway, scenario, fallback=False):
        self.gateway, self.scenario, self.fallback = gateway, scenario, fallback
        self.target = gateway.root / "restored"
        self.to_target = "TARGET" in scenario.words
        self.words = [f"{self.target}/" if word == "TARGET" else word for word in scenario.words]
        gateway.remove_temporary_files()
        for path in gateway.state.iterdir():
            remove(path)
        grow(gateway, scenario.stored)
        stored = self.look()
        gateway.do("typed-save", "weekly")
        gateway.keep_state()
        self.rows = gateway.query(ROWS)
        self.before = self.after = None
        self.archives = 0
        # Whether a file could not be read: then it is replaced, even by one that is equal.
        self.unread = False
        self.gives_up_stamp = False
        self.reset()
        self.require_planned()
        self.learn(stored)
        self.reset()

    def name(self):
        return self.scenario.name + (" without exchange" if self.fallback else "")

    def look(self):
        found = {**see(self.gateway.config), **see(ETC)}
        return {**found, **see(self.target)} if self.target.exists() else found

    def reset(self):
        """The configuration of before, and the storage with it."""
        self.unread = False
        self.gives_up_stamp = False
        self.gateway.restore_state()
        grow(self.gateway, self.scenario.before)
        if self.to_target:
            if self.target.exists():
                remove(self.target)
            self.target.mkdir()
            for name, entry in self.scenario.before["target"].items():
                plant(self.target, name, entry)
        self.before = self.look()

    def unchecked(self):
        return [word for word in self.words if "=" not in word]

    def require_planned(self):
        plan = self.gateway.do("typed-plan", "weekly", *self.unchecked())
        require(self.look() == self.before, "a plan changed", difference(self.look(), self.before))
        self.planned = [line for line in plan.splitlines() if line != "done"]
        self.changed = {line.split(" ", 1)[1] for line in self.planned}
        require(self.changed, self.scenario.name, "changes nothing")

    def learn(self, stored):
        """A restore that meets no fault: what it makes is what is stored."""
        output = self.gateway.do("typed-load", "weekly", *self.unchecked(), prefix=self.tracer("openat"))
        actions = [line for line in output.splitlines() if line.split(" ")[0] in
                   ("create", "replace", "remove", "attributes")]
        require(actions == self.planned, "planned", self.planned, "done", actions)
        self.after = without_inodes(self.look())
        for path, one in stored.items():
            if self.to_target:
                break
            found = self.after.get(path)
            require(found is not None and in_whole_seconds(found) == in_whole_seconds(one), self.name(),
                    "does not restore", path, found, one)
        for path in self.after.keys() - stored.keys():
            kept = self.before.get(path)
            is_kept = kept is not None and kept[:-2] == self.after[path][:-2]
            require(self.to_target or is_kept, "nobody stored", path)
        require(self.after != without_inodes(self.before), self.scenario.name, "changes nothing")
        self.require_finished("after")

    # What is done.

    def tracer(self, calls, *more):
        words = ["strace", "-y", "-qq", "-o", str(self.gateway.root / "trace"), "-e", f"trace={calls}"]
        if self.fallback:
            words[-1] = f"trace={calls},renameat2" if "renameat2" not in calls.split(",") else words[-1]
            words += NO_EXCHANGE
        for word in more:
            words += ["-e", word]
        return words

    def load(self, prefix=()):
        return self.run("typed-load", "weekly", *self.words, prefix=prefix)

    def recover(self, prefix=()):
        prefix = prefix or (self.tracer("renameat2") if self.fallback else ())
        return self.run("typed-recover", prefix=prefix)

    def run(self, *words, prefix=()):
        process = self.gateway.start(*words, prefix=prefix)
        try:
            process.wait(60)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            raise Failure("hangs:", *words, *prefix) from None
        output = process.stdout.read().decode("utf-8", "replace")
        process.stdout.close()
        self.gateway.wait_for_group(process)
        return process.returncode, output

    def traced(self):
        """(call, its number among those of its name, the line) of the last trace."""
        counts = collections.Counter()
        for line in (self.gateway.root / "trace").read_text("latin-1").splitlines():
            match = re.match(r"(\w+)\(", line)
            if match:
                counts[match.group(1)] += 1
                yield match.group(1), counts[match.group(1)], line

    def changing_calls(self):
        """Of the last trace: calls that changed a file, or made a change durable."""
        return [(call, number) for call, number, line in self.traced()
                if re.search(r"\) += \d", line) and (call != "openat" or "O_CREAT" in line)]

    # What must hold.

    def state_of_tree(self):
        """"before", with the very files that were there, or "after"."""
        now = self.look()
        if now == self.before:
            return "before"
        if without_inodes(now) == self.after:
            moved = [path for path, one in self.before.items()
                     if path in now and path not in self.changed and one.inode != now[path].inode]
            require(not moved, "not in the plan, and not the file that it was:", moved)
            return "after"
        if self.is_after(now):
            return "after"
        raise Failure("neither before:", difference(now, self.before), "- nor after:",
                      difference(without_inodes(now), self.after))

    def is_after(self, now):
        return without_inodes(now) == self.after or (self.unread and rounded(now) == rounded(self.after))

    def require_nothing_left(self, strangers=()):
        """`strangers` are files of others."""
        left = []
        for path in self.gateway.temp.iterdir():
            # Nobody can know whose archive this is that was being packed; `confsave status` names it.
            if "no-keep" in self.words or not re.fullmatch("[A-Za-z0-9]{6}", path.name):
                left.append(str(path))
            else:
                self.archives += 1
                path.unlink()
        for path in self.gateway.state.iterdir():
            if path.name.endswith("-journal"):
                if any(path.read_bytes()[:8]):
                    left.append(str(path))
            elif path.name not in LASTING:
                left.append(str(path))
        left = [path for path in left if path not in strangers]
        require(not left, "left behind:", left)

    def require_sound_storage(self, state):
        gateway = self.gateway
        gateway.require_integrity()
        require(gateway.query(ROWS) == self.rows, "the rows are others now")
        stamped = gateway.query("select load_time > 0 from Config where name = 'weekly'") == [(1,)]
        if not self.gives_up_stamp:
            require(stamped == (state == "after" and not self.to_target), "the tree is", state,
                    "and the row is", "stamped" if stamped else "not stamped")
        journal = gateway.state / "restore.db"
        if journal.exists() and journal.stat().st_size > 0:
            connection = sqlite3.connect(journal)
            counts = [connection.execute(f"select count(*) from {table}").fetchone()[0] for (table,) in
                      connection.execute("select name from sqlite_schema where type = 'table' "
                                         "and name <> 'ended'").fetchall()]
            connection.close()
            require(not any(counts), "the journal of the restore has rows:", counts)

    def require_finished(self, *states):
        """The tree is one of these, everything is in order, and the next restore works."""
        state = self.state_of_tree()
        require(state in (states or ("before", "after")), "the tree is", state)
        # Whoever opens the storage and its notes first rolls back what was not committed.
        self.require_sound_storage(state)
        self.gateway.do("typed-verify")
        self.require_nothing_left()
        self.gateway.do("typed-load", "weekly", *self.unchecked())
        require(self.is_after(self.look()), "the next restore:",
                difference(without_inodes(self.look()), self.after))
        self.require_nothing_left()
        return state


# The files of people, which no restore may touch.
OF_PEOPLE = {"abcDEF": directory(0o700), "abcDEF/letter": file("of a person"),
             ".confsave-restore-": directory(0o700), ".confsave-restore-/letter": file("of a person"),
             ".confsave-restore-0123456789abcdef": directory(0o700),
             ".confsave-restore-0123456789abcdef/0": file("of a person")}

COMMON = {"user": directory(0o755), "user/gateway.key": file("key", 0o600),
          "user/filter.conf": file("filter"), "hub": directory(0o711)}

EVERYTHING = Scenario(
    "everything", ["exact", "no-keep"],
    {"config": {**OF_PEOPLE, **COMMON, "user/gateway.conf": file("old", 0o640, 3, extras=EXTRAS),
                "copy-of-a-person": same_file("user/gateway.conf"), "user/users.conf": file("goes"),
                "user/config.db": file("data"), "user/config.idx": file("index"),
                "gw1": file("becomes a directory"), "gw2": directory(), "gw2/a": file("goes"),
                "gw2/b": directory(), "gw3": file("becomes a link"), "gw4": link("../nowhere"),
                "gw5": directory(0o700), "gw6": link("gw1"), "peer1": file("twice"),
                "peer2": same_file("peer1"), "peer3": directory(), "peer3/in": directory(),
                "peer3/in/side": file("goes"), "station": directory(0o700, 4),
                "station/here": file("mode", 0o600), "outnet": file("owner", 0o640, 5),
                "linkmap.dat": file("time")},
     "etc": {**OF_PEOPLE, "failover.ini": file("old", extras=EXTRAS), "failover.ini.crg": directory(),
             "failover.ini.crg/inside": file("goes")}},
    {"config": {**COMMON, "user/gateway.conf": file("new", 0o600, 2),
                "user/nat.conf": file("made", 0o644, 7), "gw1": directory(0o700), "gw1/a": file("made"),
                "gw1/b": directory(), "gw1/b/c": file("made"), "gw2": file("was a directory"),
                "gw3": link("gw2"), "gw4": file("was a link"), "gw5": link("../else"),
                "gw6": directory(0o711), "peer1": file("twice, new"), "peer2": same_file("peer1"),
                "peer4": same_file("peer1"), "station": directory(0o755),
                "station/here": file("mode", 0o644), "outnet": file("owner", 0o640, 6),
                "linkmap.dat": file("time", time=1_500_000_000), "hub/out": directory(),
                "hub/out/key": file("made")},
     "etc": {"failover.ini": file("new"), "failover.ini.crg": file("was a directory"),
             "failoverd-config.crg": file("made")}}, True)

DATABASE = {"user/config.db": file("data, new"), "user/config.idx": file("index, new")}

KEEPING = Scenario(
    "keeping", [],
    {"config": {**COMMON, "user/gateway.conf": file("old"), "user/config.db": file("data"),
                "user/config.idx": file("index"), "gw-stays": file("extra")},
     "etc": {"failover.ini": file("old")}},
    {"config": {**COMMON, **DATABASE, "user/gateway.conf": file("new"), "user/nat.conf": file("made")},
     "etc": {"failover.ini": file("new"), "failover.ini.crg": file("made")}}, False)

ATTRIBUTES = Scenario(
    "attributes", ["no-keep"],
    {"config": {**COMMON, "user/gateway.conf": file("same", 0o644, 3), "station": directory(0o700, 3),
                "gw1": file("same", 0o600), "outnet": file("same")},
     "etc": {"failover.ini": file("same", 0o600)}},
    {"config": {**COMMON, "user/gateway.conf": file("same", 0o600, 2), "station": directory(0o755),
                "gw1": file("same", 0o640), "outnet": file("same", time=1_500_000_000)},
     "etc": {"failover.ini": file("same", 0o644)}}, False)

CHECKED = KEEPING._replace(name="checked", words=["no-keep", "check=true"])
REFUSED = KEEPING._replace(name="refused", words=["no-keep", "check=false"])

TARGET = KEEPING._replace(
    name="target", words=["TARGET"],
    before={**KEEPING.before, "target": {"user": directory(0o755),
                                         "user/gateway.conf": file("of the target"),
                                         "failover.ini": link("elsewhere"), "not-ours": file("stays")}})
