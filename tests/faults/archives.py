#!/usr/bin/env python3
"""Restores archives that nobody sane has packed, by each library.

    archives.py OPERATE [--full] [--seed=N]

Nothing outside the destination changes, nothing hangs, and "corlu.serv" never comes back. What the second
library refuses changes nothing at all.
"""

import gzip
import hashlib
import io
import itertools
import os
import sqlite3
import tarfile

from gateway import ETC, Gateway, main, remove, require


def member(name, kind=tarfile.REGTYPE, data=b"planted\n", link="", mode=0o644, **more):
    info = tarfile.TarInfo(name)
    info.type, info.linkname, info.mode = kind, link, mode
    info.size = len(data) if kind == tarfile.REGTYPE else 0
    for key, value in more.items():
        setattr(info, key, value)
    return info, data


def pack(*members, form=tarfile.GNU_FORMAT):
    stream = io.BytesIO()
    with tarfile.open(fileobj=stream, mode="w:gz", format=form) as archive:
        for info, data in members:
            archive.addfile(info, io.BytesIO(data) if info.isreg() else None)
    return stream.getvalue()


def zeros(size):
    """A file of so many zeros."""
    info, _ = member("zeros", data=b"")
    info.size = size
    stream = io.BytesIO()
    with gzip.GzipFile(fileobj=stream, mode="wb", compresslevel=6) as out:
        out.write(info.tobuf(tarfile.GNU_FORMAT))
        block = b"\0" * (1 << 20)
        for _ in range(size >> 20):
            out.write(block)
        out.write(b"\0" * 10240)
    return stream.getvalue()


def archives_of_two_kinds(outside):
    """Those where one thing takes the place of another, and odd names."""
    plain, out = pack(member("plain")), str(outside)
    link, hard, directory = tarfile.SYMTYPE, tarfile.LNKTYPE, tarfile.DIRTYPE
    yield "directory, then a link in its place", plain, pack(member("d/f"), member("d", link, link=out))
    yield "link, then a directory in its place", plain, pack(member("way", link, link=out),
                                                             member("way/", directory), member("way/evil"))
    yield "file, then a directory in its place", plain, pack(member("both"), member("both/", directory),
                                                             member("both/x"))
    yield "hard link to a later file", plain, pack(member("hard", hard, link="later"), member("later"))
    yield "hard link to a directory", plain, pack(member("d", directory), member("hard", hard, link="d"))
    yield "hard link to itself", plain, pack(member("hard", hard, link="hard"), member("x"))
    yield "dot names", plain, pack(member(".evil/x"), member("./.evil"), member("x"))
    yield "the destination itself", plain, pack(member(".", directory, mode=0o777), member("./x"))
    yield "the name of a staging directory", plain, pack(member(".confsave-restore-0123456789abcdef/0"),
                                                         member("gw/.confsave-restore-0123456789abcdef/0"))
    yield "line feed", plain, pack(member("a\nb"), member("x"))
    yield "deep", plain, pack(member("d/" * 70 + "x"))
    yield "one directory as two", pack(member("both")), pack(member("both/x"))


def odd_files(plain, full):
    """Those that are not one gzip file with one whole archive, and other formats."""
    yield "old format", plain, pack(member("x"), form=tarfile.USTAR_FORMAT)
    yield "extended headers", plain, pack(member("ü" * 200), form=tarfile.PAX_FORMAT)
    yield "zeros", plain, zeros(1 << 30 if full else 32 << 20)
    yield "zeros behind the end", plain, plain + gzip.compress(b"\0" * 1000000)
    yield "two archives", plain, pack(member("x")) + pack(member("../../outside/evil"))
    yield "no archive", plain, b"this is no archive"
    yield "nothing", plain, b""
    yield "an empty archive", plain, pack()
    random_files = [member(f"f{i}", data=os.urandom(1000)) for i in range(20)]
    yield "half an archive", plain, pack(*random_files)[:9000]
    wrong = bytearray(plain)
    wrong[-6] ^= 0xff
    yield "wrong checksum", plain, bytes(wrong)
    yield "not compressed", plain, gzip.decompress(plain)


def archives(outside, full):
    """Title, etc archive, keybase archive."""
    plain = pack(member("plain"))
    out = str(outside)
    link, hard, directory = tarfile.SYMTYPE, tarfile.LNKTYPE, tarfile.DIRTYPE
    yield "absolute name", plain, pack(member(f"{out}/evil"), member("x"))
    yield "absolute name alone", plain, pack(member(f"{out}/evil"))
    yield "..", plain, pack(member("../../outside/evil"), member("x"))
    yield ".. in the middle", plain, pack(member("user/../../../outside/evil"), member("x"))
    yield "symbolic link, then through it", plain, pack(member("way", link, link=out), member("way/evil"))
    yield "relative link, then through it", plain, pack(member("way", link, link="../../outside"),
                                                        member("way/evil"))
    yield "link in place of a directory", plain, pack(member("user", link, link=out), member("user/evil"))
    yield "planted by one, used by the other", pack(member("way", link, link=out)), pack(member("way/evil"))
    yield "link to a file, then over it", plain, pack(member("victim", link, link=f"{out}/victim"),
                                                      member("victim"))
    yield ("file link planted by one", pack(member("victim", link, link=f"{out}/victim")),
           pack(member("victim")))
    yield "hard link out", plain, pack(member("hard", hard, link=f"{out}/victim"), member("hard"))
    yield "relative hard link out", plain, pack(member("hard", hard, link="../../outside/victim"),
                                                member("x"))
    yield "hard link to a link", plain, pack(member("way", link, link=f"{out}/victim"),
                                             member("hard", hard, link="way"), member("hard"))
    yield "device", plain, pack(member("device", tarfile.CHRTYPE, devmajor=1, devminor=1), member("x"))
    yield "block device", plain, pack(member("disk", tarfile.BLKTYPE, devmajor=8, devminor=0), member("x"))
    yield "pipe", plain, pack(member("pipe", tarfile.FIFOTYPE), member("x"))
    yield "setuid", plain, pack(member("setuid", mode=0o6755))
    yield "directory without permissions", plain, pack(member("closed", directory, mode=0),
                                                       member("closed/x"))
    yield "name of an option", plain, pack(member("--no-preserve=all"), member("-rf"), member("x"))
    yield "name of a command", plain, pack(member(f"$(touch {out}/evil)".replace("/", "_")), member("a;b"),
                                           member("`id`"))
    yield "control characters", plain, pack(member("a\nb\x1b[2J"), member("x"))
    yield "long name", plain, pack(member("d/" * 100 + "n" * 100), member("x"))
    yield "too long name", plain, pack(member("n" * 300), member("x"))
    yield "the same name often", plain, pack(*[member("same", data=bytes([65 + i])) for i in range(26)])
    yield "file and directory of one name", plain, pack(member("both"), member("both/x"))
    for position in range(3):
        names = ["a", "b"]
        names.insert(position, "corlu.serv")
        yield f"corlu.serv at {position}", plain, pack(*map(member, names), member("user/corlu.serv"),
                                                        member("deep/er/corlu.serv/x"))
    yield from archives_of_two_kinds(outside)
    yield from odd_files(plain, full)


def picture(*roots):
    """Everything below: kind, mode, contents, target."""
    seen = {}
    for root in roots:
        for path in [root, *root.rglob("*")]:
            status = path.lstat()
            if path.is_symlink():
                what = os.readlink(path)
            elif path.is_file():
                what = hashlib.sha256(path.read_bytes()).hexdigest()
            else:
                what = ""
            seen[str(path)] = (status.st_mode, what, status.st_mtime if path.is_file() else 0)
    return seen


def store(gateway, etc, keybase):
    connection = sqlite3.connect(gateway.database)
    with connection:
        connection.execute("delete from Config")
        connection.execute("insert into Config (name, version, keybase, etc, type, save_time) "
                           "values ('weekly', 17264017408, ?, ?, 1, 1)", (keybase, etc))
    connection.close()


# As unsafe, or as damaged.
REFUSED = ("exception code 11 ", "exception code 10 ")


def strike(gateway, outside, verb, target):
    """Loads into a target, or into place."""
    others, places = [outside, gateway.state.parent / "beside"], [gateway.config, ETC]
    if target is not None:
        others, places = others + places, [target]
    before, was = picture(*others), picture(*places)
    words = [verb, "weekly"] + ([f"{target}/"] if target is not None else [])
    status, output = gateway.run(*words, timeout=120)
    require(picture(*others) == before, "something outside changed")
    require(not list(gateway.temp.iterdir()), "a temporary file is left")
    for root in places:
        served = list(root.rglob("corlu.serv*"))
        require(not served, "came back:", served)
    if verb == "load":
        require(output in ("done\n", "status 36 \n"), "ended with", status, output)
    elif status != 0:
        require(output.startswith(REFUSED), "was refused with", output)
        require(picture(*places) == was, "was refused, and something changed")
    return status == 0


def campaign(program, full, source):
    with Gateway(program) as gateway:
        outside, target = gateway.root / "outside", gateway.root / "target"
        for directory in (outside, gateway.root / "beside"):
            directory.mkdir()
            (directory / "victim").write_text("untouched\n")
        gateway.write_configuration("new")
        gateway.do("save", "weekly")
        kinds, restored = 0, {"load": 0, "typed-load": 0}
        for title, etc, keybase in archives(outside, full):
            for verb, place in itertools.product(restored, (target, None)):
                store(gateway, etc, keybase)
                target.mkdir(exist_ok=True)
                try:
                    restored[verb] += strike(gateway, outside, verb, place)
                except Exception as failure:
                    raise type(failure)(f"{title}, {verb}: {failure}") from failure
                for root in (gateway.config, ETC, target):
                    for path in root.iterdir():
                        remove(path)
                for directory in (gateway.config / "user", gateway.config / "hub"):
                    directory.mkdir()
                gateway.write_configuration("new")
            kinds += 1
    require(kinds >= 17 and all(restored.values()), "only", kinds, restored)
    first, second = restored["load"], restored["typed-load"]
    return (f"{kinds} kinds of archive into two places, {first} restored by the contract library and "
            f"{second} by the second, nothing outside changed")


main(campaign)
