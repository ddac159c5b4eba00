"""The system calls of a program, as changes of a disk."""

import os
import re
import stat

from disk_model import Attribute, Data, Entries, Inode, Sync, read_tree
from gateway import require

CALLS = """open openat openat2 creat close dup dup2 dup3 fcntl chdir fchdir umask lseek
    write writev pwrite64 pwritev copy_file_range sendfile splice ftruncate truncate fallocate
    chmod fchmod fchmodat chown fchown fchownat lchown utimensat utime utimes futimesat
    setxattr lsetxattr fsetxattr removexattr lremovexattr fremovexattr
    mkdir mkdirat mknod mknodat link linkat symlink symlinkat rename renameat renameat2
    unlink unlinkat rmdir fsync fdatasync syncfs sync stat lstat fstat newfstatat statx""".split()
LINKS_IN_A_ROW = 10


def split(text):
    """The arguments of a call; strings are bytes."""
    strings, result, depth = [], [""], 0

    def keep(match):
        strings.append(bytes.fromhex(match.group(1).replace("\\x", "")))
        return f"${len(strings) - 1}$"

    text = re.sub(r"/\*.*?\*/", "", re.sub(r'"((?:\\x[0-9a-f]{2})*)"', keep, text))
    for character in text:
        depth += character in "[{("
        depth -= character in "]})"
        if character == "," and depth == 0:
            result.append("")
        else:
            result[-1] += character
    result = [argument.strip() for argument in result]
    return [strings[int(argument[1:-1])] if re.fullmatch(r"\$\d+\$", argument) else argument
            for argument in result]


class Recorder:
    """Follows the descriptors of one process through the tree below some roots."""

    def __init__(self, roots, numbers=None):
        self.start, self.system_of = read_tree(roots, numbers)
        self.now = self.start.copy()
        self.files, self.offsets = {}, {}  # by descriptor: an inode, or a path that is not ours
        self.here, self.mask = os.getcwd(), 0o022
        self.events, self.said, self.name = [], None, ""

    # Paths.

    def at(self, base, path, follow=True, links=LINKS_IN_A_ROW):
        """(directory, last name) of a path below a root, (inode, None) of a root, or (None, None)."""
        path = os.fsdecode(path)
        match = re.fullmatch(r"/proc/(?:self|thread-self)/fd/(\d+)", path)
        if match:
            return self.file(match.group(1)), None
        start = self.here if base == "AT_FDCWD" else self.files.get(int(base))
        return self.walk(start, path, follow, links)

    def walk(self, base, path, follow, links):
        where = ["/" if path.startswith("/") else base]
        for name in path.split("/"):
            if name in ("", "."):
                continue
            if name == "..":
                where = where[:-1] or [None]
                continue
            where.append(self.step(where[-1], name))
        if isinstance(where[-1], int):
            return where[-1], None
        if not isinstance(where[-1], tuple):
            return None, None
        directory, name = where[-1]
        entry = self.now.inodes[directory].entries.get(name)
        if follow and entry is not None and stat.S_ISLNK(self.now.inodes[entry].mode):
            require(links > 0, "too many links at", path)
            return self.walk(directory, os.fsdecode(self.now.inodes[entry].data), follow, links - 1)
        return directory, name

    def step(self, place, name):
        """One component further: a path that is not ours, a root's inode, or (directory, name)."""
        if isinstance(place, str):
            path = os.path.join(place, name)
            return self.now.roots.get(path, path)
        if isinstance(place, tuple):
            directory, entry = place
            place = self.now.inodes[directory].entries.get(entry)
        require(place is None or self.now.inodes[place].entries is not None, "no directory before", name)
        return None if place is None else (place, name)

    def inode(self, base, path, follow=True):
        place, name = self.at(base, path, follow)
        return place if name is None else self.now.inodes[place].entries.get(name)

    # Changes.

    def change(self, event):
        self.note(event)
        event.apply(self.now)

    def note(self, event):
        paths = [path for path, key in self.now.reachable().items() if key == event.inode]
        event.text = f"{self.name} {min(paths, default='without a name')}"
        self.events.append(event)

    def new(self, mode, directory, data=b""):
        inode = Inode(None, mode, (os.geteuid(), os.getegid()), 0, data)
        key = self.now.add(inode)
        require(self.start.add(inode.copy()) == key, "two orders of inodes")
        self.system_of[key] = self.system_of[directory]
        return key

    def make(self, base, path, mode, data=b""):
        directory, name = self.at(base, path, follow=False)
        if directory is not None:
            self.change(Entries((directory, name, None, self.new(mode, directory, data))))

    def rename(self, base, old, new_base, new, exchange=False):
        (source, name), (target, new_name) = self.at(base, old, False), self.at(new_base, new, False)
        require((source is None) == (target is None), "a rename across the roots:", old, new)
        if source is None:
            return
        moved = self.now.inodes[source].entries[name]
        there = self.now.inodes[target].entries.get(new_name)
        if moved != there:
            self.change(Entries((source, name, moved, there if exchange else None),
                                (target, new_name, there, moved)))

    def remove(self, base, path):
        directory, name = self.at(base, path, follow=False)
        if directory is not None:
            self.change(Entries((directory, name, self.now.inodes[directory].entries[name], None)))

    def set(self, inode, field, value, name=None):
        if inode is not None:
            self.change(Attribute(inode, field, value, name))

    def write(self, inode, offset, data):
        if inode is not None:
            self.change(Data(inode, offset, data))

    def open(self, base, path, flags, mode, result):
        follow = "O_NOFOLLOW" not in flags
        if "O_TMPFILE" in flags:
            directory = self.inode(base, path, follow)
            if directory is not None:
                self.files[result] = self.new(stat.S_IFREG | mode & ~self.mask, directory)
                self.offsets[result] = 0
            return
        if "O_CREAT" in flags and self.at(base, path, follow)[0] is not None:
            if self.inode(base, path, follow) is None:
                directory, name = self.at(base, path, follow)
                made = self.new(stat.S_IFREG | mode & ~self.mask, directory)
                self.change(Entries((directory, name, None, made)))
        inode = self.inode(base, path, follow)
        self.files[result] = inode if inode is not None else self.outside(base, path)
        self.offsets[result] = 0
        if inode is not None and "O_TRUNC" in flags and self.now.inodes[inode].data:
            self.change(Data(inode, 0, None))
        require(inode is None or "O_APPEND" not in flags, "a file that is appended to:", path)

    def outside(self, base, path):
        place = self.here if base == "AT_FDCWD" else self.files.get(int(base))
        return os.path.normpath(os.path.join(place if isinstance(place, str) else "/?", os.fsdecode(path)))

    def file(self, descriptor):
        inode = self.files.get(int(descriptor))
        return inode if isinstance(inode, int) else None

    def saw(self, inode, status):
        """Numbers of inodes are known from the program's own looking."""
        match = re.search(r"stx?_ino=(\d+)", status)
        if inode is None or match is None:
            return
        for tree in (self.now, self.start):
            if tree.inodes[inode].number is None:
                tree.inodes[inode].number = int(match.group(1))

    # Calls.

    def call(self, name, a, result):
        handler = getattr(self, f"_{name}", None)
        require(handler is not None, "a call that the replay does not know:", name, a)
        self.name = name
        handler(a, result)

    def _open(self, a, result):
        self.open("AT_FDCWD", a[0], a[1], int(a[2], 8) if len(a) > 2 else 0, result)

    def _openat(self, a, result):
        self.open(a[0], a[1], a[2], int(a[3], 8) if len(a) > 3 else 0, result)

    def _openat2(self, a, result):
        mode = re.search(r"mode=(0\d*)", a[2])
        self.open(a[0], a[1], a[2], int(mode.group(1), 8) if mode else 0, result)

    def _close(self, a, _):
        self.files.pop(int(a[0]), None)

    def _dup(self, a, result):
        require(self.file(a[0]) is None, "a second descriptor of a file shares its offset")
        self.files[result] = self.files.get(int(a[0]))

    _dup2 = _dup3 = _dup

    def _fcntl(self, a, result):
        if a[1].startswith("F_DUPFD"):
            self.files[result], self.offsets[result] = self.files.get(int(a[0])), 0

    def _chdir(self, a, _):
        self.here = os.path.join(self.here, os.fsdecode(a[0]))

    def _fchdir(self, a, _):
        self.here = self.files[int(a[0])]

    def _umask(self, a, _):
        self.mask = int(a[0], 8)

    def _lseek(self, a, result):
        self.offsets[int(a[0])] = result

    def _write(self, a, result):
        if int(a[0]) == 1 and self.file(a[0]) is None:
            if a[1].endswith(b"done\n"):
                self.said = len(self.events)
            return
        inode = self.file(a[0])
        if inode is not None:
            self.write(inode, self.offsets[int(a[0])], a[1][:result])
            self.offsets[int(a[0])] += result

    def _pwrite64(self, a, result):
        self.write(self.file(a[0]), int(a[3]), a[1][:result])

    def _ftruncate(self, a, _):
        self.write(self.file(a[0]), int(a[1]), None)

    def _fallocate(self, a, _):
        inode = self.file(a[0])
        size = int(a[2]) + int(a[3])
        if inode is not None and a[1] == "0" and len(self.now.inodes[inode].data) < size:
            self.write(inode, size, None)

    def _fchmod(self, a, _):
        self.mode(self.file(a[0]), a[1])

    def _chmod(self, a, _):
        self.mode(self.inode("AT_FDCWD", a[0]), a[1])

    def _fchmodat(self, a, _):
        self.mode(self.inode(a[0], a[1]), a[2])

    def mode(self, inode, mode):
        if inode is not None:
            self.set(inode, "mode", stat.S_IFMT(self.now.inodes[inode].mode) | int(mode, 8))

    def _fchown(self, a, _):
        self.owner(self.file(a[0]), a[1:3])

    def _fchownat(self, a, _):
        inode = self.inode(a[0], a[1], "AT_SYMLINK_NOFOLLOW" not in a[4]) if a[1] else self.file(a[0])
        self.owner(inode, a[2:4])

    def _lchown(self, a, _):
        self.owner(self.inode("AT_FDCWD", a[0], False), a[1:3])

    def owner(self, inode, owner):
        if inode is not None:
            before = self.now.inodes[inode].owner
            self.set(inode, "owner", tuple(old if int(new) in (-1, 0xffffffff) else int(new)
                                           for old, new in zip(before, owner)))

    def _utimensat(self, a, _):
        inode = self.file(a[0]) if a[1] == "NULL" or not a[1] else \
            self.inode(a[0], a[1], "AT_SYMLINK_NOFOLLOW" not in a[3])
        times = re.findall(r"UTIME_\w+|tv_sec=(-?\d+), tv_nsec=(UTIME_\w+|\d+)", a[2])
        if inode is not None and times and times[1][0] and times[1][1].isdigit():
            self.set(inode, "time", int(times[1][0]) * 10**9 + int(times[1][1]))

    def _fsetxattr(self, a, _):
        value = a[2] if isinstance(a[2], bytes) else b""
        self.set(self.file(a[0]), "attributes", value, os.fsdecode(a[1]))

    def _setxattr(self, a, _):
        value = a[2] if isinstance(a[2], bytes) else b""
        self.set(self.inode("AT_FDCWD", a[0]), "attributes", value, os.fsdecode(a[1]))

    def _fremovexattr(self, a, _):
        self.set(self.file(a[0]), "attributes", None, os.fsdecode(a[1]))

    def _mkdir(self, a, _):
        self._mkdirat(["AT_FDCWD", *a], 0)

    def _mkdirat(self, a, _):
        self.make(a[0], a[1], stat.S_IFDIR | int(a[2], 8) & ~self.mask)

    def _symlink(self, a, _):
        self._symlinkat([a[0], "AT_FDCWD", a[1]], 0)

    def _symlinkat(self, a, _):
        self.make(a[1], a[2], stat.S_IFLNK | 0o777, a[0])

    def _link(self, a, _):
        self._linkat(["AT_FDCWD", a[0], "AT_FDCWD", a[1], "0"], 0)

    def _linkat(self, a, _):
        inode = self.file(a[0]) if not a[1] else self.inode(a[0], a[1], "AT_SYMLINK_FOLLOW" in a[4])
        directory, name = self.at(a[2], a[3], follow=False)
        if inode is not None:
            self.change(Entries((directory, name, None, inode)))

    def _rename(self, a, _):
        self.rename("AT_FDCWD", a[0], "AT_FDCWD", a[1])

    def _renameat(self, a, _):
        self.rename(*a[:4])

    def _renameat2(self, a, _):
        self.rename(*a[:4], "RENAME_EXCHANGE" in a[4])

    def _unlink(self, a, _):
        self.remove("AT_FDCWD", a[0])

    _rmdir = _unlink

    def _unlinkat(self, a, _):
        self.remove(a[0], a[1])

    def _fsync(self, a, _):
        if self.file(a[0]) is not None:
            self.note(Sync(self.file(a[0])))

    def _fdatasync(self, a, _):
        if self.file(a[0]) is not None:
            self.note(Sync(self.file(a[0]), data_only=True))

    def _syncfs(self, a, _):
        if self.file(a[0]) is not None:
            self.note(Sync(None, self.system_of[self.file(a[0])]))

    def _sync(self, _, __):
        self.note(Sync(None))

    def _fstat(self, a, _):
        self.saw(self.file(a[0]), a[1])

    def _stat(self, a, _):
        self.saw(self.inode("AT_FDCWD", a[0]), a[1])

    def _lstat(self, a, _):
        self.saw(self.inode("AT_FDCWD", a[0], False), a[1])

    def _newfstatat(self, a, _):
        self.saw_at(a[:2], a[3], a[2])

    def _statx(self, a, _):
        self.saw_at(a[:2], a[2], a[4])

    def saw_at(self, place, flags, status):
        follow = "AT_SYMLINK_NOFOLLOW" not in flags
        self.saw(self.inode(*place, follow) if place[1] else self.file(place[0]), status)


def record(gateway, roots, *words, prefix=(), numbers=None):
    """Runs the operation. Its changes, syncs and the moment at which it said that it is done."""
    trace = gateway.root / "trace"
    recorder = Recorder(roots, numbers)
    gateway.do(*words, prefix=["strace", "-v", "-xx", "-s", "100000000", "-o", str(trace),
                               "-e", "trace=" + ",".join(f"?{call}" for call in CALLS), *prefix])
    for line in trace.read_text("latin-1").splitlines():
        match = re.match(r"(\w+)\((.*)\)\s+= (\d+|0x[0-9a-f]+)( |$)", line)
        if match:
            recorder.call(match.group(1), split(match.group(2)), int(match.group(3), 0))
    return recorder
