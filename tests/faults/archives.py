#!/usr/bin/env python3
"""Restores archives that nobody sane has packed.

    archives.py OPERATE [--full] [--seed=N]

Nothing outside the destination changes, nothing hangs, and "corlu.serv" never comes back.
"""

import gzip
import hashlib
import io
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


def strike(gateway, outside, target):
    """Loads into a target, or into place."""
    others = [outside, gateway.state.parent / "beside"]
    if target is not None:
        others += [gateway.config, ETC]
    before = picture(*others)
    words = ["load", "weekly"] + ([f"{target}/"] if target is not None else [])
    status, output = gateway.run(*words, timeout=120)
    require(output in ("done\n", "status 36 \n"), "ended with", status, output)
    require(picture(*others) == before, "something outside changed")
    require(not list(gateway.temp.iterdir()), "a temporary file is left")
    for root in (gateway.config, ETC) if target is None else (target,):
        served = list(root.rglob("corlu.serv*"))
        require(not served, "came back:", served)
    return status == 0


def campaign(program, full, source):
    with Gateway(program) as gateway:
        outside, target = gateway.root / "outside", gateway.root / "target"
        for directory in (outside, gateway.root / "beside"):
            directory.mkdir()
            (directory / "victim").write_text("untouched\n")
        gateway.write_configuration("new")
        gateway.do("save", "weekly")
        kinds, restored = 0, 0
        for title, etc, keybase in archives(outside, full):
            store(gateway, etc, keybase)
            for place in (target, None):
                target.mkdir(exist_ok=True)
                try:
                    restored += strike(gateway, outside, place)
                except Exception as failure:
                    raise type(failure)(f"{title}: {failure}") from failure
                for root in (gateway.config, ETC, target):
                    for path in root.iterdir():
                        remove(path)
                for directory in (gateway.config / "user", gateway.config / "hub"):
                    directory.mkdir()
                gateway.write_configuration("new")
            kinds += 1
    require(kinds >= 17, "only", kinds)
    return f"{kinds} kinds of archive into two places, {restored} restored, nothing outside changed"


main(campaign)
