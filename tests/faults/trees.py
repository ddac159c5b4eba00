"""Random trees of files: drawn, made on disk, and looked at again."""

import dataclasses
import hashlib
import os
import stat
import struct

FILE, DIRECTORY, LINK, HARD = "file", "directory", "symlink", "hardlink"

# What an access control list is made of, as the kernel stores it.
ACCESS, DEFAULT = "system.posix_acl_access", "system.posix_acl_default"
USER_OBJ, USER, GROUP_OBJ, GROUP, MASK, OTHER = 1, 2, 4, 8, 16, 32
NOBODY_IN_PARTICULAR = 0xffffffff


@dataclasses.dataclass
class Node:
    kind: str
    mode: int = 0o644
    uid: int = 0
    gid: int = 0
    time: int = 1_700_000_000_000_000_000  # nanoseconds
    data: bytes = b""  # zeros at its end may be a hole
    target: str = ""  # of a symbolic link, or the path of the file that is linked hard
    attributes: dict = dataclasses.field(default_factory=dict)

    def copy(self, **changes):
        return dataclasses.replace(self, attributes=dict(self.attributes), **changes)


@dataclasses.dataclass(frozen=True)
class Look:
    """What two trees have in common."""
    kind: str
    mode: int
    uid: int
    gid: int
    time: int  # whole seconds, 0 of a directory
    content: str  # its size and digest; of a symbolic link its target

    def key(self):
        return self.kind, self.mode, self.uid, self.gid, self.time, self.content


@dataclasses.dataclass(frozen=True)
class Seen(Look):
    """What is there."""
    attributes: tuple
    inode: int
    links: int
    nanoseconds: int

    def same(self, other):
        """Contents, modes, owners and whole-second times."""
        return other is not None and self.key() == other.key()


def pack_list(entries):
    """An access control list: (tag, permissions, id) each."""
    entries = sorted(entries, key=lambda entry: (entry[0], entry[2]))
    return struct.pack("<I", 2) + b"".join(struct.pack("<HHI", *entry) for entry in entries)


def unpack_list(packed):
    return [struct.unpack_from("<HHI", packed, at) for at in range(4, len(packed), 8)]


# Making -----------------------------------------------------------------------------------------------


def write(path, data):
    """With a hole in the place of the zeros at its end."""
    content = data.rstrip(b"\0") if len(data) > 4096 else data
    with open(path, "xb") as stream:
        stream.write(content)
        stream.truncate(len(data))


def make(root, nodes):
    """Below `root`, where none of them is. Parents that are no nodes get mode 0755."""
    for path in sorted(nodes):
        node, full = nodes[path], os.path.join(root, path)
        os.makedirs(os.path.dirname(full), mode=0o755, exist_ok=True)
        if node.kind == DIRECTORY:
            os.makedirs(full, exist_ok=True)
        elif node.kind == LINK:
            os.symlink(node.target, full)
        elif node.kind == FILE:
            write(full, node.data)
    for path, node in nodes.items():
        full = os.path.join(root, path)
        if node.kind == HARD:
            os.link(os.path.join(root, node.target), full, follow_symlinks=False)
        else:
            dress(full, node)


def dress(full, node):
    os.lchown(full, node.uid, node.gid)
    if node.kind != LINK:
        os.chmod(full, node.mode)
        for name, value in node.attributes.items():
            os.setxattr(full, name, value)
    if node.kind != DIRECTORY:
        os.utime(full, ns=(node.time, node.time), follow_symlinks=False)


def summary(content):
    """Short enough for a message."""
    return f"{len(content)}:{hashlib.sha256(content).hexdigest()[:16]}"


# Looking ----------------------------------------------------------------------------------------------


def kind_of(mode):
    return {stat.S_IFREG: FILE, stat.S_IFDIR: DIRECTORY, stat.S_IFLNK: LINK}.get(stat.S_IFMT(mode), "other")


def look(full):
    status = os.lstat(full)
    kind = kind_of(status.st_mode)
    content = ""
    if kind == FILE:
        with open(full, "rb") as stream:
            content = summary(stream.read())
    elif kind == LINK:
        content = os.readlink(full)
    names = sorted(os.listxattr(full, follow_symlinks=False))
    attributes = tuple((name, os.getxattr(full, name, follow_symlinks=False)) for name in names)
    return Seen(kind, 0 if kind == LINK else stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid,
                0 if kind == DIRECTORY else status.st_mtime_ns // 10**9, content, attributes,
                status.st_ino, 0 if kind == DIRECTORY else status.st_nlink,
                0 if kind == DIRECTORY else status.st_mtime_ns)


def picture(root):
    """Everything below `root`, which is "" itself, by its relative path."""
    seen = {"": look(root)}
    for parent, directories, names in os.walk(root):
        for name in directories + names:
            full = os.path.join(parent, name)
            seen[os.path.relpath(full, root)] = look(full)
    return seen


def groups(seen, paths):
    """The sets of those paths that are one file."""
    found = {}
    for path in paths:
        if path in seen and seen[path].kind in (FILE, LINK):
            found.setdefault(seen[path].inode, set()).add(path)
    return {frozenset(group) for group in found.values() if len(group) > 1}


def clear(root):
    """Everything below `root`."""
    for entry in os.scandir(root):
        if entry.is_dir(follow_symlinks=False):
            clear(entry.path)
            os.rmdir(entry.path)
        else:
            os.unlink(entry.path)


# Drawing ----------------------------------------------------------------------------------------------

# Paths of the contents of each type, some below directories or matched by patterns, and others.
CONFIGURATION = [
    "user/gateway.conf", "user/gateway.key", "user/gateway.key.old", "user/filter.conf", "user/nat.conf",
    "user/users.conf", "user/config.db", "user/config.idx", "user/config.db-journal", "user/kwtp.conf",
    "user/upgrade.conf", "user/corlucfg-config.crg", "gw1.conf", "gw", "gw.d/a/b", "gw.d/c", "peer 1",
    "peer.d/x", "outnet", "remote.txt", "quelvian.re", "corluadr.1", "linkmap.dat", "station",
    "user/key_set/1", "user/key_set/2", "user/key_set/in/3", "hub/out/1", "hub/out/in/2", "hub/old",
    "hub/key/k"]
OTHERS = ["notes.txt", ".hidden", ".d/x", "corlu.serv", "user/corlu.serv", "user/key_set/corlu.serv",
          "user/key_set/corlu.serv.old", "user/.dot", "user/key_set/.dot", "gw.d/corlu.serv/x",
          "user/other"]
FAILOVER = ["failover.ini", "failover.ini.crg", "failoverd-config.crg"]

MODES = [0o644, 0o600, 0o640, 0o664, 0o444, 0o755, 0o700, 0o000, 0o777, 0o4755, 0o2755, 0o6711]
DIRECTORY_MODES = [0o755, 0o700, 0o750, 0o775, 0o1777, 0o2755, 0o500, 0o555]
OWNERS = [0, 0, 0, 1, 2, 33, 1000, 65534, 54321]
TIMES = [1_700_000_000, 1_600_000_001, 1, 86_400, 2**31 + 5, 2**32 + 7, 1_763_000_000]


def draw_name(source):
    """Any byte, except NUL and "/"; no line feed, which no archive may name."""
    letters = [byte for byte in range(1, 256) if byte not in b"/\n"]
    while True:
        name = bytes(source.choice(letters) for _ in range(source.randint(1, 20)))
        if name not in (b".", b".."):
            return os.fsdecode(name)


def draw_data(source):
    size = source.choice([0, 1, 10, 100, 512, 1000, 5000])
    data = source.choice([source.randbytes(size), b"line\n" * (size // 5)])
    return data + b"\0" * source.choice([0, 0, 0, 20000, 70000])


def draw_node(source, kind):
    node = Node(kind, uid=source.choice(OWNERS), gid=source.choice(OWNERS))
    node.mode = source.choice(DIRECTORY_MODES if kind == DIRECTORY else MODES)
    node.time = source.choice(TIMES) * 10**9 + source.choice([0, 0, 1, 999_999_999])
    if kind == FILE:
        node.data = draw_data(source)
    if kind == LINK:
        node.target = source.choice(["nowhere", "gateway.conf", "../gw", "/etc/hostname",
                                     draw_name(source)])
    return node


def parents(path):
    while (path := os.path.dirname(path)):
        yield path


def insert(source, nodes, path, kind=None):
    """A random node, unless something is in its way. Its parents become nodes."""
    above = [nodes[parent] for parent in parents(path) if parent in nodes]
    below = any(other.startswith(path + "/") for other in nodes)
    if path in nodes or below or any(parent.kind != DIRECTORY for parent in above):
        return
    for parent in parents(path):
        nodes.setdefault(parent, draw_node(source, DIRECTORY))
    kind = kind or source.choices([FILE, LINK, HARD, DIRECTORY], [80, 7, 7, 6])[0]
    files = [other for other, node in nodes.items() if node.kind == FILE]
    if kind == HARD and files:
        nodes[path] = Node(HARD, target=source.choice(files))
    else:
        nodes[path] = draw_node(source, FILE if kind == HARD else kind)


def draw(source, paths, share, odd=0):
    """A tree with a share of those paths, and `odd` names more in directories of the contents."""
    nodes = {}
    for path in source.sample(paths, round(len(paths) * share)):
        insert(source, nodes, path)
    for _ in range(odd):
        place = source.choice(["gw", "user/key_set/", "hub/out/", "peer"])
        insert(source, nodes, place + draw_name(source))
    return nodes


def drop(nodes, path):
    """And what is below it, or is one file with it."""
    for other in [other for other, node in nodes.items()
                  if other == path or other.startswith(path + "/")
                  or node.kind == HARD and (node.target + "/").startswith(path + "/")]:
        del nodes[other]


def mutate(source, nodes, paths, share):
    """Another tree, which differs in about so large a share."""
    result = {path: node.copy() for path, node in nodes.items()}
    for path in [path for path in nodes if source.random() < share]:
        if path not in result:
            continue
        node = result[path]
        change = source.choice(["drop", "kind", "data", "mode", "owner", "time", "break"])
        if change == "drop" or (change == "kind" and node.kind != DIRECTORY):
            drop(result, path)
            if change == "kind":
                insert(source, result, path)
        elif change == "break" and node.kind == HARD and node.target in result:
            result[path] = result[node.target].copy()
        elif change == "data" and node.kind == FILE:
            node.data = draw_data(source)
        elif change == "mode":
            node.mode = source.choice(DIRECTORY_MODES if node.kind == DIRECTORY else MODES)
        elif change == "owner":
            node.uid, node.gid = source.choice(OWNERS), source.choice(OWNERS)
        elif change == "time":
            node.time = source.choice(TIMES) * 10**9
    for path in source.sample(paths, round(len(paths) * share / 4)):
        insert(source, result, path)
    return result
