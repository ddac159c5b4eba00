#!/usr/bin/env python3
"""Cuts the power after a load that reported success, on a real ext4.

    power.py OPERATE [--full] [--seed=N]

The configuration, the failover files and the storage are on a file system in an image file. The image is
copied while it is mounted, some seconds after the end of the load: the copy is what a power cut leaves at
that moment. It is mounted and read. After a load by the program every file is the restored one, whole, and
the storage loads. The library syncs nothing (quirk Q65): a load by it alone has to lose files right after
its end, or else the cut shows nothing.

Where there are no loop devices the campaign is skipped, with status 77.
"""

import pathlib
import subprocess
import sys
import time

from gateway import ETC, Gateway, main, require
from stored import found_by_library, found_by_program

PLACE = pathlib.Path("/mnt/power")


def call(*words):
    subprocess.run([str(word) for word in words], check=True, stdin=subprocess.DEVNULL,
                   capture_output=True, timeout=120)


class Disk:
    """A new ext4 in an image file."""

    def __init__(self):
        PLACE.mkdir(exist_ok=True)
        self.image, self.place, self.copies = PLACE / "image", PLACE / "disk", {}

    def __enter__(self):
        self.place.mkdir(exist_ok=True)
        with self.image.open("wb") as image:
            image.truncate(64 << 20)
        call("mkfs.ext4", "-q", "-F", self.image)
        call("mount", "-o", "loop", self.image, self.place)
        (self.place / "etc").mkdir()
        call("mount", "--bind", self.place / "etc", ETC)
        return self

    def __exit__(self, *_):
        for place in (ETC, self.place):
            subprocess.run(["umount", place], check=False)

    def cut(self, seconds):
        copy = PLACE / f"copy{seconds}"
        call("cp", "--sparse=always", self.image, copy)
        return copy


def read_after(gateway, copy):
    """Mounts a copy. Its restored files, and what the library and the program find in its storage."""
    place = PLACE / "after"
    place.mkdir(exist_ok=True)
    call("mount", "-o", "loop", copy, place)
    try:
        root = place / gateway.root.name
        found = {}
        for name in gateway.expected_files(""):
            for directory in (root / "config", place / "etc"):
                if (directory / name).is_file():
                    found[name] = (directory / name).read_bytes()
        stored = (found_by_library(gateway, state=root / "state"),
                  found_by_program(gateway, "weekly", state=root / "state"))
        return found, stored
    finally:
        call("umount", place)
        copy.unlink()


def cut_after(gateway, disk, load, delays, size):
    """For each delay, how many files are not whole after a power cut then."""
    gateway.write_configuration("new", size)
    call("sync", "-f", disk.place)
    load()
    end = time.monotonic()
    copies = []
    for delay in delays:
        time.sleep(max(0, end + delay - time.monotonic()))
        copies.append(disk.cut(delay))
    expected = gateway.expected_files("old", size)
    lost = []
    for copy in copies:
        found, stored = read_after(gateway, copy)
        lost.append(sum(found.get(name) != contents for name, contents in expected.items()))
        for rows in stored:
            require(list(rows.values()) == [expected], "the storage did not survive")
    return lost


def load_by_program(gateway):
    result = subprocess.run([gateway.confsave, "load", "weekly", "--yes"], env=gateway.environment(),
                            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60,
                            check=False)
    require(result.returncode == 0, "confsave load:", result.returncode, result.stderr)


def skip_without_loop_devices():
    try:
        with Disk():
            pass
    except (OSError, subprocess.SubprocessError) as failure:
        reason = getattr(failure, "stderr", b"") or str(failure).encode()
        print("power: SKIPPED, nothing is shown: no file system can be made in an image and mounted:",
              reason.decode("utf-8", "replace").strip())
        sys.exit(77)


def campaign(program, full, source):
    skip_without_loop_devices()
    delays = [0, 2, 5, 10, 36] if full else [0, 2]
    figures = []
    for size in (0, 300000) if full else (0,):
        with Disk() as disk, Gateway(program, parent=disk.place) as gateway:
            gateway.write_configuration("old", size)
            gateway.do("save", "weekly")
            files = len(gateway.expected_files(""))
            alone = cut_after(gateway, disk, lambda g=gateway: g.do("load", "weekly"), [0], size)
            require(alone[0] > 0, "a load without a sync lost nothing: the cut does not bite")
            lost = cut_after(gateway, disk, lambda g=gateway: load_by_program(g), delays, size)
            require(not any(lost), "after a load by the program, files that are not whole:",
                    dict(zip(delays, lost)), "of", files)
            figures.append(f"files of {size + 20} bytes: {len(delays)} power cuts after a load by the "
                           f"program, no file lost; after one by the library alone {alone[0]} of {files}")
    return "; ".join(figures)


main(campaign)
