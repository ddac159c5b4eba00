#!/usr/bin/env python3
"""Cuts the power during and after a restore, on a real ext4.

    power.py OPERATE [--full] [--seed=N]

The configuration, the failover files and the storage are on a file system in an image file, mounted with
options that promise little. The image is copied while it is mounted: the copy is what a power cut leaves at
that moment. It is mounted in the place of the first one, and the typed library recovers.

- After a restore that reported success every file is the restored one, whole, at every moment, and the
  storage loads.
- In the middle of a restore, which is stopped at its system calls: the files are those of before, in the
  same inodes, or those of after.

The contract library syncs nothing (quirk Q65): a load by it alone has to lose files right after its end, or
else the cut shows nothing. Where there are no loop devices the campaign is skipped, with status 77.
"""

import os
import pathlib
import signal
import subprocess
import sys
import time

from disk_model import described, difference, read_tree
from gateway import ETC, Gateway, main, require
from stored import found_by_library

PLACE = pathlib.Path("/mnt/power")
OPTIONS = ["data=ordered", "noauto_da_alloc", "data=writeback"]
CALLS = "fsync,fdatasync,syncfs,renameat2,unlinkat,mkdirat"


def call(*words):
    subprocess.run([str(word) for word in words], check=True, stdin=subprocess.DEVNULL,
                   capture_output=True, timeout=120)


class Disk:
    """A new ext4 in an image file, and copies of it."""

    def __init__(self, options="data=ordered"):
        PLACE.mkdir(exist_ok=True)
        self.image, self.place, self.copies, self.options = PLACE / "image", PLACE / "disk", 0, options

    def __enter__(self):
        self.place.mkdir(exist_ok=True)
        with self.image.open("wb") as image:
            image.truncate(64 << 20)
        call("mkfs.ext4", "-q", "-F", self.image)
        call("mount", "-o", f"loop,{self.options}", self.image, self.place)
        (self.place / "etc").mkdir()
        call("mount", "--bind", self.place / "etc", ETC)
        return self

    def __exit__(self, *_):
        for place in (ETC, self.place):
            subprocess.run(["umount", place], check=False)

    def cut(self):
        self.copies += 1
        copy = PLACE / f"copy{self.copies}"
        call("cp", "--sparse=always", self.image, copy)
        return copy

    def replace(self, image):
        """Mounts another image in the place of this one."""
        self.__exit__()
        call("mount", "-o", f"loop,{self.options}", image, self.place)
        call("mount", "--bind", self.place / "etc", ETC)


def live(gateway, numbers=False):
    """The configuration and the failover files as they are."""
    roots = [str(gateway.config), str(ETC)]
    return described(roots, read_tree(roots)[0], numbers)


class Restore:
    """One restore on a disk, and the copies that were made meanwhile."""

    def __init__(self, gateway, disk, size):
        gateway.write_configuration("old", size)
        gateway.do("typed-save", "weekly")
        gateway.write_configuration("new", size)
        call("sync", "-f", disk.place)
        self.gateway, self.disk = gateway, disk
        self.old, self.expected = live(gateway, True), gateway.expected_files("old", size)
        self.during, self.after = [], []

    def stop_at(self, calls, keep):
        """Runs the restore, and stops it after each of the calls; copies the image where `keep` says so."""
        trace = self.gateway.root.parent.parent / "trace"
        tracer = ["strace", "-o", str(trace), "-e", f"trace={calls}", "-e", f"inject={calls}:signal=STOP"]
        trace.write_bytes(b"")
        process = self.gateway.start("typed-load", "weekly", "no-keep", prefix=tracer)
        stops = 0
        while process.poll() is None:
            if trace.read_bytes().count(b"--- stopped by SIGSTOP") == stops:
                time.sleep(0.001)
                continue
            if keep(stops):
                self.during.append((stops, self.disk.cut()))
            stops += 1
            children = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children")
            for child in children.read_text("ascii").split():
                os.kill(int(child), signal.SIGCONT)
        require(process.returncode == 0, "the restore failed:", process.stdout.read())
        return stops

    def cut_after(self, delays):
        """From now on."""
        end = time.monotonic()
        for delay in delays:
            time.sleep(max(0, end + delay - time.monotonic()))
            self.after.append((delay, self.disk.cut()))

    def check(self):
        """Recovers on each copy. How many of those from the middle of the restore have the new files."""
        new, found = live(self.gateway), [0, 0]
        for moment, copies in (("at stop", self.during), ("seconds", self.after)):
            for number, copy in copies:
                self.disk.replace(copy)
                try:
                    is_new = self.recover(new)
                    require(is_new or copies is self.during, "success was reported, and lost")
                    found[is_new] += copies is self.during
                except Exception as failure:
                    raise type(failure)(f"{moment} {number}, {self.disk.options}: {failure}") from failure
                copy.unlink()
        return found

    def recover(self, new):
        self.gateway.do("typed-recover")
        self.gateway.do("typed-verify")
        stored = found_by_library(self.gateway, "weekly")
        require(list(stored.values()) == [self.expected], "the storage did not survive")
        is_new = live(self.gateway) == new
        if not is_new:
            wrong = difference(self.old, live(self.gateway, True))
            require(not wrong, "neither before nor after:", wrong, difference(new, live(self.gateway)))
        return is_new


def lost_by_library(program):
    """How many files are not whole when the power fails right after a load by the contract library."""
    with Disk() as disk, Gateway(program, parent=disk.place) as gateway:
        restore = Restore(gateway, disk, 0)
        gateway.do("load", "weekly")
        new = live(gateway)
        disk.replace(disk.cut())
        found = live(gateway)
        lost = [path for path, file in new.items() if path not in found or found[path][3] != file[3]]
        require(lost, "a load without a sync lost nothing: the cut does not bite")
        return len(lost), len(restore.expected)


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
    figures = []
    for options in OPTIONS if full else [source.choice(OPTIONS)]:
        for size in (0, 300000) if full else (0,):
            with Disk(options) as disk, Gateway(program, parent=disk.place) as gateway:
                restore = Restore(gateway, disk, size)
                stops = restore.stop_at(CALLS, lambda _: full or source.random() < 0.1)
                restore.cut_after([0, 1, 2, 5, 10, 20, 36] if full else [0])
                before, after = restore.check()
                figures.append(f"{options}, files of {size + 20} bytes: {before + after} power cuts at "
                               f"{stops} system calls, {before} before and {after} after; "
                               f"{len(restore.after)} after success, no file lost")
    lost, of = lost_by_library(program)
    return "; ".join(figures) + f"; after a load by the library alone {lost} of {of} files lost"


main(campaign)
