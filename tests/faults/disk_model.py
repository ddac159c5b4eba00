"""A disk that may forget what was not synced.

Changes are entered in the order of the system calls. A power cut leaves the durable state, and of the other
changes any part that keeps these rules, which are the assumptions about a file system:

- A sync of a file covers its data and attributes up to then (fdatasync: its data and size), but not its
  name. A sync of a directory covers its entries and its attributes, but neither its own name nor what its
  files contain; a rename between two directories is covered when both were synced. syncfs covers
  everything on its file system, and nothing on another one. Nothing else is durable, however long ago it
  was done.
- A rename is done or not done, also between two directories, and so is an exchange: there is no moment
  without the name, or with one half.
- A change of entries needs those before it that concern the same name in the same directory, that gave
  another name to the file that loses one, or that moved the directory in which it works. The removal of a
  directory needs that of its entries. All other changes become durable in any order: also those in a new
  directory whose own name is not durable, and what is there then is lost.
- Writes, truncations and attributes of a file become durable in any order, each alone. Of a write there
  may be any number of sectors from its beginning, or its length with zeros in the place of what lies
  behind the old end.
- A sync that has returned is kept by the disk: it does not lie about its cache.
"""

import os
import stat

SECTOR = 512


class Inode:
    """A file, directory or link, whatever names it has."""

    def __init__(self, number, mode, owner=(0, 0), time=0, data=b""):
        self.number, self.mode, self.owner, self.time = number, mode, owner, time
        self.data = data  # of a link its target
        self.attributes = {}
        self.entries = {} if stat.S_ISDIR(mode) else None

    def copy(self):
        inode = Inode(self.number, self.mode, self.owner, self.time, bytes(self.data))
        inode.attributes = dict(self.attributes)
        inode.entries = None if self.entries is None else dict(self.entries)
        return inode

    def key(self):
        entries = None if self.entries is None else tuple(sorted(self.entries.items()))
        time = self.time if stat.S_ISREG(self.mode) else 0
        attributes = tuple(sorted(self.attributes.items()))
        return self.mode, self.owner, time, bytes(self.data), attributes, entries


class Tree:
    """Inodes by a key of ours, and the roots of some file systems among them."""

    def __init__(self):
        self.inodes, self.roots = {}, {}

    def copy(self):
        tree = Tree()
        tree.inodes = {key: inode.copy() for key, inode in self.inodes.items()}
        tree.roots = dict(self.roots)
        return tree

    def add(self, inode):
        key = len(self.inodes)
        self.inodes[key] = inode
        return key

    def reachable(self):
        """Each path with the key of its inode."""
        found, left = {}, list(self.roots.items())
        while left:
            path, key = left.pop()
            found[path] = key
            for name, entry in (self.inodes[key].entries or {}).items():
                left.append((f"{path}/{name}", entry))
        return found

    def key(self):
        return hash(tuple(sorted((path, key, self.inodes[key].key())
                                 for path, key in self.reachable().items())))


# Changes -----------------------------------------------------------------------------------------------

class Entries:
    """Names that an operation changes at once: (directory, name, inode before, inode after)."""

    def __init__(self, *changes):
        self.changes = changes

    @property
    def inode(self):
        return self.changes[0][0]

    def apply(self, tree, _=None):
        for directory, name, _before, after in self.changes:
            if after is None:
                tree.inodes[directory].entries.pop(name, None)
            else:
                tree.inodes[directory].entries[name] = after

    def needs(self, earlier):
        if not isinstance(earlier, Entries):
            return False
        slots = {change[:2] for change in self.changes}
        loses = {change[2] for change in self.changes} - {None}
        works_in = {change[0] for change in self.changes}
        gone = loses - {change[3] for change in self.changes}
        return any((directory, name) in slots or after in loses or directory in gone or
                   len(earlier.changes) == 2 and after in works_in
                   for directory, name, _, after in earlier.changes)


class Data:
    """A write, or with None for the bytes a new size."""

    def __init__(self, inode, offset, data):
        self.inode, self.offset, self.data = inode, offset, data

    def needs(self, _):
        return False

    def apply(self, tree, source=None):
        inode, data = tree.inodes[self.inode], self.data
        if not isinstance(inode.data, bytearray):
            inode.data = bytearray(inode.data)
        there = inode.data
        if data is None:
            there[:] = there[:self.offset].ljust(self.offset, b"\0")
            return
        fate = source.random() if source is not None else 1
        if fate < 0.2:
            data = data[:source.randrange(0, len(data) + 1, SECTOR)]
        elif fate < 0.4:
            data = there[self.offset:self.offset + len(data)].ljust(len(data), b"\0")
        if data:
            there.extend(bytes(max(0, self.offset - len(there))))
            there[self.offset:self.offset + len(data)] = data


class Attribute:
    """A field of an inode, or with a name an extended attribute."""

    def __init__(self, inode, field, value, name=None):
        self.inode, self.field, self.value, self.name = inode, field, value, name

    def needs(self, _):
        return False

    def apply(self, tree, _=None):
        inode = tree.inodes[self.inode]
        if self.name is None:
            setattr(inode, self.field, self.value)
        elif self.value is None:
            inode.attributes.pop(self.name, None)
        else:
            inode.attributes[self.name] = self.value


class Sync:
    """Of an inode, or with None of the file system `system`, or with None again of all."""

    def __init__(self, inode, system=None, data_only=False):
        self.inode, self.system, self.data_only = inode, system, data_only

    def covers(self, change, system):
        if self.inode is None:
            return self.system in (None, system)
        return change.inode == self.inode and not (self.data_only and isinstance(change, Attribute))


# The disk ----------------------------------------------------------------------------------------------

class Disk:
    """A durable tree, and changes that are not durable yet."""

    def __init__(self, tree, system_of):
        self.durable, self.system_of = tree.copy(), system_of
        self.pending, self.needed, self.count = {}, {}, 0
        self.unsynced = {}  # of changed entries, their directories

    def do(self, event):
        self.count += 1
        if event is None:
            return
        if isinstance(event, Sync):
            self.sync(event)
        else:
            earlier = [number for number, change in self.pending.items() if event.needs(change)]
            self.needed[self.count] = {self.count}.union(*(self.needed[number] for number in earlier))
            self.pending[self.count] = event
            if isinstance(event, Entries):
                self.unsynced[self.count] = {directory for directory, *_ in event.changes}

    def covers(self, sync, number):
        change = self.pending[number]
        if sync.inode is None or not isinstance(change, Entries):
            return sync.covers(change, self.system_of[change.inode])
        self.unsynced[number].discard(sync.inode)
        return not self.unsynced[number]

    def sync(self, sync):
        covered = [number for number in self.pending if self.covers(sync, number)]
        for number in self.closed(covered):
            self.pending.pop(number).apply(self.durable)

    def closed(self, numbers):
        """These and what they need, in order."""
        numbers = set().union(*(self.needed[number] for number in numbers))
        return sorted(numbers & self.pending.keys())

    def without(self, number):
        """All that does not need this one."""
        return [other for other in self.pending if number not in self.needed[other]]

    def after_power_cut(self, numbers, source=None):
        """The tree with these changes; `source` decides how much of a write there is."""
        tree = self.durable.copy()
        for number in self.closed(numbers):
            self.pending[number].apply(tree, source)
        return tree


# Real trees --------------------------------------------------------------------------------------------

def read_tree(roots, numbers=None):
    """What is at these paths, and for each inode the root that it is below. `numbers` has other numbers for
    inodes, by device and inode."""
    tree, known, system_of = Tree(), {}, {}

    def read(path, root):
        status = os.lstat(path)
        if (status.st_dev, status.st_ino) in known:
            return known[status.st_dev, status.st_ino]
        number = (numbers or {}).get((status.st_dev, status.st_ino), status.st_ino)
        inode = Inode(number, status.st_mode, (status.st_uid, status.st_gid), status.st_mtime_ns)
        key = known[status.st_dev, status.st_ino] = tree.add(inode)
        system_of[key] = root
        if stat.S_ISLNK(status.st_mode):
            inode.data = os.readlink(path).encode()
        elif stat.S_ISREG(status.st_mode):
            with open(path, "rb") as file:
                inode.data = file.read()
        if not stat.S_ISLNK(status.st_mode):
            inode.attributes = {name: os.getxattr(path, name) for name in os.listxattr(path)}
        if inode.entries is not None:
            for name in os.listdir(path):
                inode.entries[name] = read(f"{path}/{name}", root)
        return key

    for root in map(str, roots):
        tree.roots[root] = read(root, root)
    return tree, system_of


def described(roots, tree, numbers):
    """Below each of the roots, of each path all that a restore is about, and with `numbers` its inode."""
    firsts, found = {}, {}
    for path, key in sorted(tree.reachable().items()):
        if not any(path == root or path.startswith(f"{root}/") for root in roots):
            continue
        inode = tree.inodes[key]
        time = inode.time if stat.S_ISREG(inode.mode) else 0
        found[path] = (inode.mode, inode.owner, time, bytes(inode.data), firsts.setdefault(key, path),
                       sorted(inode.attributes.items()), inode.number if numbers else 0)
    return found


def difference(one, other):
    """The first paths in which two descriptions differ."""
    return [(path, one.get(path), other.get(path)) for path in sorted(one.keys() | other.keys())
            if one.get(path) != other.get(path)][:4]


def write_tree(tree):
    """Makes the tree anew at its roots. Returns by device and inode what a program that looks at a file has
    to see as the number of its inode. A file that the recorded program never looked at has no number."""
    made, numbers = {}, {}

    def finish(path, inode):
        link = stat.S_ISLNK(inode.mode)
        os.chown(path, *inode.owner, follow_symlinks=False)
        if not link:
            for name in os.listxattr(path):
                os.removexattr(path, name)
            for name, value in inode.attributes.items():
                os.setxattr(path, name, value)
            os.chmod(path, stat.S_IMODE(inode.mode))
        os.utime(path, ns=(inode.time, inode.time), follow_symlinks=False)
        status = os.lstat(path)
        if inode.number is not None:
            numbers[status.st_dev, status.st_ino] = inode.number

    def write(path, key):
        inode = tree.inodes[key]
        if key in made:
            os.link(made[key], path, follow_symlinks=False)
            return
        made[key] = path
        if inode.entries is not None:
            if path not in tree.roots:
                os.mkdir(path)
            for name, entry in inode.entries.items():
                write(f"{path}/{name}", entry)
        elif stat.S_ISLNK(inode.mode):
            os.symlink(inode.data, path)
        else:
            with open(path, "xb") as file:
                file.write(inode.data)
        finish(path, inode)

    for root, key in tree.roots.items():
        empty(root)
        write(root, key)
    return numbers


def empty(root):
    with os.scandir(root) as entries:
        for entry in entries:
            if entry.is_dir(follow_symlinks=False):
                empty(entry.path)
                os.rmdir(entry.path)
            else:
                os.unlink(entry.path)
