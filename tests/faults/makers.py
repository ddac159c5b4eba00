"""Ways to make a snapshot of the live configuration: rows that some tool could have stored."""

import dataclasses
import io
import os
import random
import sqlite3
import subprocess
import tarfile

from gateway import ETC
from trees import DIRECTORY, FILE, HARD, LINK, OWNERS, TIMES, draw_node

VERSION = 17264017408


def store(gateway, kind, keybase, etc):
    connection = sqlite3.connect(gateway.database)
    with connection:
        connection.execute("delete from Config")
        connection.execute("insert into Config (name, version, keybase, etc, type, save_time) "
                           "values ('weekly', ?, ?, ?, ?, 1)", (VERSION, keybase, etc, kind))
    connection.close()


def stored_row(gateway):
    """The type and both archives."""
    return gateway.query("select type, keybase, etc from Config where name = 'weekly'")[0]


# With tar ---------------------------------------------------------------------------------------------


def tar_options(source):
    options = [source.choice(["--format=gnu", "--format=pax", "--format=ustar", "--format=oldgnu",
                              "--format=pax --xattrs --acls"])]
    for option in ("--sparse", "--numeric-owner", "--owner=daemon:777", "--group=99", "--mode=u+rwX,go-w",
                   "--mtime=@1000000001", "--hard-dereference", "--sort=name", "--blocking-factor=1",
                   "--transform=s,^,./,S", "--exclude=*.d"):
        if source.random() < 0.12:
            options.append(option)
    # A ustar archive has no holes. With a mode of its own the header contradicts the access list.
    for one, other in (("--format=ustar", "--sparse"),
                       ("--format=pax --xattrs --acls", "--mode=u+rwX,go-w")):
        if one in options and other in options:
            options.remove(other)
    return " ".join(options).split()


def tar(source, directory):
    """Some of its entries, or all by ".", or each file by name without the directories."""
    entries = sorted(os.listdir(directory))
    way = source.choice(["all", "entries", "some", "dotted", "files"])
    if way == "all":
        names = ["."]
    elif way == "files":
        names = [os.path.relpath(os.path.join(parent, name), directory)
                 for parent, _, found in os.walk(directory) for name in found]
        source.shuffle(names)
    else:
        names = entries if way == "entries" else source.sample(entries, (len(entries) + 1) // 2)
        names = [f"./{name}" for name in names] if way == "dotted" else names
    listed = b"".join(os.fsencode(name) + b"\0" for name in names)
    command = ["tar", "czf", "-", *tar_options(source), "--null", "--verbatim-files-from", "-T", "-"]
    return subprocess.run(command, cwd=directory, input=listed, capture_output=True, check=True).stdout


# By hand ----------------------------------------------------------------------------------------------


@dataclasses.dataclass
class Hand:
    """Headers that no tool writes so, but that any tool reads."""
    source: random.Random
    form: int
    names: bool
    prefix: str  # of every name, or "" for all kinds; tar wants one for a directory behind its files

    def header(self, path, node):
        source = self.source
        prefix = self.prefix or source.choice(["", "./", ".//", "././"])
        suffix = "/" if node.kind == DIRECTORY and source.random() < 0.5 else ""
        info = tarfile.TarInfo(prefix + path + suffix)
        info.mode, info.uid, info.gid = node.mode, node.uid, node.gid
        info.mtime = node.time / 10**9 if self.form == tarfile.PAX_FORMAT else node.time // 10**9
        if self.names and source.random() < 0.5:
            info.uname = source.choice(["daemon", "bin", "nobody", "no such user"])
            info.gname = source.choice(["daemon", "mail", "no such group", ""])
        return info

    def add(self, archive, path, node):
        info = self.header(path, node)
        if node.kind == DIRECTORY:
            info.type = tarfile.DIRTYPE
        elif node.kind == LINK:
            info.type, info.linkname = tarfile.SYMTYPE, node.target
        elif node.kind == FILE:
            info.size = len(node.data)
        else:
            # The header of a hard link says what it likes: the file counts.
            info.type, info.linkname = tarfile.LNKTYPE, self.source.choice(["", "./"]) + node.target
            info.mode, info.uid, info.mtime = 0o777, self.source.choice(OWNERS), self.source.choice(TIMES)
        archive.addfile(info, io.BytesIO(node.data) if node.kind == FILE else None)

    def pack(self, nodes, order):
        stream, seen = io.BytesIO(), set()
        with tarfile.open(fileobj=stream, mode="w:gz", format=self.form,
                          errors="surrogateescape") as archive:
            for path in order:
                node = nodes[path]
                self.add(archive, path, draw_node(self.source, FILE) if path in seen else node)
                seen.add(path)
        return stream.getvalue()

    def ordered(self, nodes):
        """Directories before or behind what is in them, or not at all; some files twice."""
        source = self.source
        order = [path for path in nodes if nodes[path].kind != HARD]
        source.shuffle(order)
        if not self.prefix or source.random() < 0.5:
            order.sort()
        order = [path for path in order if nodes[path].kind != DIRECTORY or source.random() < 0.7]
        links = [path for path in nodes if nodes[path].kind == HARD and nodes[path].target in order]
        files = [path for path in order if nodes[path].kind == FILE]
        again = source.sample(files, len(files) // 6) if source.random() < 0.4 else []
        return order + links + again


def by_hand(source, nodes):
    hand = Hand(source, source.choice([tarfile.GNU_FORMAT, tarfile.PAX_FORMAT]), source.random() < 0.5,
                source.choice(["", "./", ".//"]))
    return hand.pack(nodes, hand.ordered(nodes))


# All --------------------------------------------------------------------------------------------------


def make_snapshot(source, gateway, trees, way, kind):
    """The live configuration is `trees`."""
    if way in ("save", "typed-save"):
        gateway.do(way, "weekly", kind)
        return
    archives = [tar(source, directory) if way == "tar" else by_hand(source, trees[name])
                for name, directory in (("config", gateway.config), ("etc", ETC))]
    etc = archives[1] if kind != 3 else source.choice([None, b"", archives[1]])
    store(gateway, kind, archives[0], etc)
