#!/usr/bin/env python3
"""examples/fleet/collect stores what each gateway in order exports, and names the others with the reason.

    tests/fleet_test.py PROGRAM COLLECT

Seventeen gateways of twenty have real storages; one is dead, one hangs, one sends bytes without end. Then
come worse ones, a full disk, a lost repository, and a signal. The repository is restic's own.
"""

import concurrent.futures
import json
import os
import pathlib
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time

PROGRAM, COLLECT = (os.path.realpath(word) for word in sys.argv[1:3])
GOOD = [f"gw-{number:02}.example" for number in range(1, 18)]
SIGNALS = (signal.SIGTERM, signal.SIGINT)
REFUSED = "Connection refused by gw-18"


class Fleet:
    """Gateways in a directory each; "ask" there is what a collector runs to get an export."""

    def __init__(self, root):
        self.root, self.tmp = root, root / "tmp"
        self.tmp.mkdir()
        # A collector without limits fills this, and not the machine.
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=24m", "tmpfs", self.tmp], check=True)
        self.environment = {
            **os.environ, "TMPDIR": str(self.tmp), "RESTIC_REPOSITORY": str(root / "repository"),
            "RESTIC_PASSWORD": "secret", "RESTIC_CACHE_DIR": str(root / "cache")}
        self.restic("init")

    def restic(self, *words):
        return subprocess.check_output(["restic", "--quiet", *words], env=self.environment)

    def add(self, name, script):
        """A gateway that answers by this shell script."""
        (self.root / name).mkdir()
        ask = self.root / name / "ask"
        ask.write_text(f"#!/bin/sh\ncd '{self.root / name}' || exit\n{script}\n", encoding="ascii")
        ask.chmod(0o700)

    def gateway(self, name):
        """A gateway with an empty storage."""
        self.add(name, f"exec '{self.root / name}/confsave' export --all -")
        home = self.root / name
        for directory in ("config/user", "state", "tmp"):
            (home / directory).mkdir(parents=True)
        program = home / "confsave"
        program.write_text(
            f"#!/bin/sh\nexport KELMOR_CONFIG_PATH='{home}/config/' KELMOR_DYNAMIC_DIR='{home}/state' "
            f"KELMOR_TEMP_DIR='{home}/tmp' KELMOR_LOG_FILE='{home}/log'\nexec '{PROGRAM}' \"$@\"\n",
            encoding="ascii")
        program.chmod(0o700)
        return home

    def saved_gateway(self, name):
        home = self.gateway(name)
        for snapshot in ("before", "after"):
            (home / "config/user/gateway.conf").write_text(f"{name} {snapshot}\n", encoding="ascii")
            subprocess.run([home / "confsave", "save", "--comment", name, f"{name[:5]}-{snapshot}"],
                           check=True)

    def start(self, lines, *options, **environment):
        gateways = self.root / "gateways"
        gateways.write_text("\n".join(lines) + "\n", encoding="ascii")
        return subprocess.Popen([COLLECT, *options, gateways, f"{self.root}/{{}}/ask"], text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                env={**self.environment, **environment})

    def collect(self, lines, *options, **environment):
        """Returns the exit status, the summary, and the lines about failures, sorted."""
        process = self.start(lines, *options, **environment)
        try:
            output, errors = process.communicate(timeout=60)
        except subprocess.TimeoutExpired:
            process.kill()
            raise
        assert not list(self.tmp.iterdir()), f"left behind: {list(self.tmp.iterdir())}"
        return process.returncode, output.strip(), sorted(errors.splitlines())

    def stored(self):
        """The hosts of the repository, one for each copy."""
        copies = json.loads(self.restic("snapshots", "--json"))
        for copy in copies:
            assert copy["tags"] == ["confsave"] and copy["paths"] == [f"/{copy['hostname']}.db"], copy
        return sorted(copy["hostname"] for copy in copies)


def expect(seen, expected):
    assert seen == expected, f"{seen}\nnot {expected}"


def rows(home):
    with sqlite3.connect(home / "state/storage.db") as storage:
        return storage.execute("select * from Config order by id").fetchall()


def wait_until(holds, what):
    end = time.monotonic() + 10
    while not holds():
        assert time.monotonic() < end, what
        time.sleep(0.02)


def twenty_gateways(fleet):
    fleet.add("gw-18", f"echo '{REFUSED}' >&2; exit 255")
    fleet.add("gw-19", "find $TMPDIR -mindepth 1 -printf '%y %m\\n' | sort -u >seen; echo some; sleep 600")
    fleet.add("gw-20", "cat /dev/zero")
    lines = ["# the fleet", "", *GOOD[:9], f"  {GOOD[9]}\t# again", *GOOD[9:], "gw-18", "gw-19", "gw-20"]
    expect(fleet.collect(lines, "-j", "6", "-t", "8", "-m", "1"),
           (1, "17 of 20 gateways were stored",
            [f"collect: gw-18: exit status 255: {REFUSED}", "collect: gw-19: it took longer than 8 seconds",
             "collect: gw-20: it sent more than 1 MiB"]))
    expect(fleet.stored(), GOOD)
    expect((fleet.root / "gw-19/seen").read_text(encoding="ascii"), "d 700\nf 600\n")


def copies_are_whole(fleet):
    """One of them all the way to another gateway; of the others the repository has as many bytes."""
    exports = [subprocess.check_output([fleet.root / name / "ask"]) for name in GOOD]
    stats = json.loads(fleet.restic("stats", "--json", "--mode", "restore-size"))
    expect(stats["total_size"], sum(map(len, exports)))
    old, new = fleet.root / GOOD[0], fleet.gateway("new")
    copy = fleet.restic("dump", "--host", GOOD[0], "latest", f"{GOOD[0]}.db")
    expect(copy, exports[0])
    subprocess.run([new / "confsave", "import", "-"], input=copy, check=True)
    expect(rows(new), rows(old))
    lists = [subprocess.check_output([home / "confsave", "list", "--json"]) for home in (new, old)]
    expect(*lists)
    expect([snapshot["name"] for snapshot in json.loads(lists[0])], ["gw-01-before", "gw-01-after"])


def bad_gateways(fleet):
    """All hang or lie at once, and take no longer than one."""
    real = f"{fleet.root}/{GOOD[0]}/ask"
    fleet.add("cut", f"{real} | head -c 5000; echo 'the\tline \033[31mbroke' >&2; exit 1")
    fleet.add("silent", "exit 0")
    fleet.add("shouts", "cat /dev/zero >&2")
    fleet.add("over", "head -c 1048577 /dev/zero; exit 0")
    fleet.add("just", "head -c 1048576 /dev/urandom")
    fleet.add("deaf", "trap '' TERM; sleep 600; sleep 600")
    for number in range(8):
        fleet.add(f"slow-{number}", f"{real}; sleep 600")
    slow = [f"slow-{number}" for number in range(8)] + ["deaf"]
    names = {"../cut": "../cut", "-ofile": "-ofile", "a;touch${IFS}x": "a\\;touch\\$\\{IFS\\}x",
             "$(id)": "\\$\\(id\\)", "two words": "two\\ words", ".": ".", "a/b": "a/b"}
    start = time.monotonic()
    result = fleet.collect(["cut", "silent", "shouts", "over", "just", *slow, *names], "-j30", "-t3", "-m1")
    seconds = time.monotonic() - start
    expect(result, (1, "1 of 21 gateways were stored", sorted(
        ["collect: cut: exit status 1: the line [31mbroke", "collect: silent: it sent nothing",
         "collect: shouts: it sent more than 1 MiB", "collect: over: it sent more than 1 MiB"] +
        [f"collect: {name}: it took longer than 3 seconds" for name in slow] +
        [f"collect: {shown}: this is not a host name" for shown in names.values()])))
    assert seconds < 20, f"nine gateways that hang took {seconds:.1f} s, and each has one"


def collector_in_trouble(fleet):
    # There is room for two of these, and they come one after another.
    sizes = {"big-1": 9, "big-2": 9, "big-3": 9, "too-big": 40}
    for name, size in sizes.items():
        fleet.add(name, f"head -c {size}M /dev/zero; echo 'it broke' >&2; exit {int(size == 9)}")
    status, _, errors = fleet.collect(sizes, "-j", "1")
    expect(errors[:3], [f"collect: big-{number}: exit status 1: it broke" for number in (1, 2, 3)])
    # The command itself does not notice the full disk.
    expect((status, "No space left on device" in errors[3]), (1, True))
    repository = fleet.environment["RESTIC_REPOSITORY"]
    fleet.add("robber", f"mv {repository} {repository}.gone; echo text")
    status, _, errors = fleet.collect(["robber"])
    expect((status, len(errors), errors[0].startswith("collect: robber: restic: ")), (1, 1, True))
    # Without a repository no gateway is asked.
    fleet.add("asked", "touch asked")
    expect(fleet.collect(["asked"])[0], 2)
    expect((fleet.root / "asked/asked").exists(), False)
    shutil.move(f"{repository}.gone", repository)
    for lines, options in ((["# nobody"], []), (["asked"], ["-t", "0"]), (["asked"], ["-x"])):
        expect(fleet.collect(lines, *options)[0], 2)


def signals(fleet):
    """Nothing is left: no file, and no process."""
    for number in SIGNALS:
        name = f"waits-{number}"
        fleet.add(name, "echo $$ >pid.new; mv pid.new pid; echo some; sleep 600")
        pid = fleet.root / name / "pid"
        process = fleet.start([name])
        wait_until(pid.exists, "the gateway is not asked")
        process.send_signal(number)
        expect(process.wait(10), 1)
        expect(list(fleet.tmp.iterdir()), [])
        proc = pathlib.Path("/proc", pid.read_text(encoding="ascii").strip())
        wait_until(lambda directory=proc: not directory.exists(), "the command lives on")
    # Of all that came after the twenty, only this was in order.
    expect(fleet.stored(), [*GOOD, "just"])


def main():
    if os.environ.get("CONFSAVE_SANDBOX") != "1":
        sys.exit("This mounts, and fills /mnt/main/etc. Run it by ctest or script/lib/sandbox.")
    for number in SIGNALS:
        signal.signal(number, signal.SIG_DFL)
    pathlib.Path("/mnt/main/etc/failover.ini").write_text("content\n", encoding="ascii")
    with tempfile.TemporaryDirectory(dir="/mnt") as directory:
        fleet = Fleet(pathlib.Path(directory))
        try:
            with concurrent.futures.ThreadPoolExecutor(4) as pool:
                list(pool.map(fleet.saved_gateway, GOOD))
            for test in (twenty_gateways, copies_are_whole, bad_gateways, collector_in_trouble, signals):
                start = time.monotonic()
                test(fleet)
                print(f"{test.__name__}: {time.monotonic() - start:.1f} s")
        finally:
            subprocess.run(["umount", "--lazy", fleet.tmp], check=True)


main()
