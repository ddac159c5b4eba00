#!/usr/bin/env python3
"""Lets others work on the files while the typed library restores them.

    others.py OPERATE [--full] [--seed=N]

A file that somebody changes is never overwritten unseen: the restore ends and everything is put back, or
the change comes after it. A save packs no mixture, two restores do not meet, a reader finds each file whole
at any time, and waits end.
"""

import io
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tarfile
import threading
import time

from gateway import CONFIG, DATABASE, ETC, FAILOVER, Failure, Gateway, main, remove, require
from trees import picture

CALLS = "renameat2,fsync,fdatasync,syncfs,mkdirat,unlinkat,fchmod,linkat"
CHANGED, BUSY = "code 12 ", "code 6 "
LEFT = ".confsave-restore-"


class Site:
    """An old and a new configuration, and snapshots of both."""

    def __init__(self, gateway):
        self.gateway = gateway
        self.roots = {"config": gateway.config, "etc": ETC}
        for content in ("new", "old"):
            self.write(content)
            gateway.do("typed-save", content)

    def write(self, content):
        """The new one has a file more, and one that is linked hard."""
        gateway = self.gateway
        for root in self.roots.values():
            for path in list(root.iterdir()):
                remove(path)
        for directory in ("user/key_set", "hub"):
            (gateway.config / directory).mkdir(parents=True)
        gateway.write_configuration(content, 300)
        more = gateway.config / "user" / "key_set" / ("1" if content == "old" else "2")
        more.write_text(content)
        if content == "new":
            os.link(more, gateway.config / "user" / "key_set" / "3")

    def pictures(self):
        return {name: picture(root) for name, root in self.roots.items()}

    def contents(self):
        """What is live, without what a restore leaves."""
        return {(name, path): (seen.kind, seen.content) for name, found in self.pictures().items()
                for path, seen in found.items()}

    def content(self):
        """"old", "new", or neither."""
        live = {word for name, paths in (("config", CONFIG + DATABASE), ("etc", FAILOVER)) for path in paths
                for word in [(self.roots[name] / path).read_bytes()[:3].decode()]}
        return live.pop() if len(live) == 1 else f"a mixture of {live}"

    def leftovers(self):
        return [path for root in self.roots.values() for path in root.glob(LEFT + "*")]


# Files that change while a restore is stopped ---------------------------------------------------------


def edit(path):
    with path.open("r+b") as stream:
        stream.write(b"EDI")


def replace(path):
    path.with_suffix(".tmp").write_text("somebody else's")
    path.with_suffix(".tmp").rename(path)


def replace_by_link(path):
    path.unlink()
    path.symlink_to("elsewhere")


def replace_by_directory(path):
    path.unlink()
    path.mkdir()
    (path / "somebody's").write_text("else")


CHANGES = {"edited": edit, "longer": lambda path: path.write_bytes(b"somebody's longer text" * 100),
           "deleted": lambda path: path.unlink(), "another file": replace, "a link": replace_by_link,
           "a directory": replace_by_directory, "another mode": lambda path: path.chmod(0o604)}
TARGETS = ["user/filter.conf", "gw1.conf", "user/config.db", "user/key_set/2"]


class Stopped:
    """A restore, or another operation, that stops after a call; `more` is for strace."""

    def __init__(self, gateway, call, number, *more, words=("typed-load", "new", "no-keep")):
        self.gateway, self.trace = gateway, gateway.root / "trace"
        self.trace.unlink(missing_ok=True)
        self.process = gateway.start(*words, prefix=[
            "strace", "-f", "-qq", "-o", str(self.trace), "-e", f"trace={CALLS}",
            *(["-e", f"inject={call}:signal=SIGSTOP:when={number}"] if call else []), *more])

    def wait(self):
        """Until it stops; false if it ends before."""
        end = time.monotonic() + 30
        while time.monotonic() < end:
            if self.trace.exists() and "stopped by SIGSTOP" in self.trace.read_text("utf-8", "replace"):
                return True
            if self.process.poll() is not None:
                return False
            time.sleep(0.001)
        raise TimeoutError("the restore neither stops nor ends")

    def finish(self):
        """Goes on; the status and the output."""
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        while self.process.poll() is None:
            time.sleep(0.01)  # Each thread stops once.
            for child in children.read_bytes().split():
                os.kill(int(child), signal.SIGCONT)
        output = self.process.stdout.read().decode("utf-8", "replace")
        self.process.stdout.close()
        return self.process.returncode, output


def calls_of(gateway):
    """(call, number) of each that a restore makes, in their order, from the first on the live files."""
    stopped = Stopped(gateway, None, 0)
    stopped.wait()
    require(stopped.process.wait() == 0, "a restore that is only traced fails")
    counts, calls = {}, []
    for line in stopped.trace.read_text().splitlines():
        found = re.match(r"\d+ +(\w+)\(", line)
        if found:
            call = found.group(1)
            counts[call] = counts.get(call, 0) + 1
            calls.append((call, counts[call], line))
    first = next(i for i, (call, _, line) in enumerate(calls) if call == "mkdirat" and LEFT in line)
    return [(call, number) for call, number, _ in calls[first:]]


def change_between(site, call, number, title, target):
    """Whether the change kept the restore from being done."""
    gateway, path = site.gateway, site.gateway.config / target
    site.write("old")
    if target == "user/key_set/2" and title != "another file":
        return None  # There is nothing to change, only a place to take.
    before = site.pictures()
    stopped = Stopped(gateway, call, number)
    if not stopped.wait():
        stopped.finish()
        return None
    CHANGES[title](path)
    middle = site.pictures()["config"]
    status, output = stopped.finish()
    now = site.pictures()
    require(status == 0 or CHANGED in output, "ended with", output)
    left = [path for name, seen in now.items() for path in seen if LEFT in path]
    # The change is there, and everything else is of before, or everything else is new.
    # A path that was deleted is in neither picture, and may not come back.
    below = {other for other in before["config"].keys() | middle.keys() | now["config"].keys()
             if other == target or other.startswith(target + "/")}
    for other in below & (middle.keys() | now["config"].keys()):
        one, other_one = middle.get(other), now["config"].get(other)
        require(one is not None and one.same(other_one), other, "was", one, "and is", other_one)
    for name, seen in now.items():
        rest = seen.keys() | before[name].keys() if status != 0 else set()
        for other in rest - set(left) - (below if name == "config" else set()):
            require(seen.get(other) == before[name].get(other), output, name, other, "is", seen.get(other))
    require(status != 0 or not left, "left", left)
    if status == 0:
        untouched = {other for other in CONFIG + DATABASE if other != target}
        live = {(gateway.config / other).read_bytes()[:3] for other in untouched}
        require(live == {b"new"}, "after a restore there is", live)
    for found in site.leftovers():
        require(status != 0 and "not put back" not in output, "left", found, output)
    recovered = gateway.do("typed-recover")
    require(recovered.startswith("nothing"), "something was left to recover:", recovered)
    require(not site.leftovers(), "left", site.leftovers(), "after", output)
    return status != 0


def changes(site, full, source):
    site.write("old")
    strikes = [(call, number, title, target) for call, number in calls_of(site.gateway)
               for title in CHANGES for target in TARGETS]
    refused = done = 0
    # A file that the restore reads while it prepares; and what only a comparison in the exchange notices.
    always = [("mkdirat", 1, "deleted", TARGETS[0]), ("renameat2", 1, "another mode", TARGETS[2])]
    for strike in always + source.sample(strikes, min(len(strikes), 700 if full else 12)):
        try:
            outcome = change_between(site, *strike)
        except Exception as failure:
            raise type(failure)(f"{strike}: {failure}") from failure
        refused += outcome is True
        done += outcome is False
    require(refused, "no change was noticed")
    require(done or not full, "no restore was done")
    return f"{refused + done} changes of files, {refused} noticed and put back"


def keep_written(site):
    """What is written through a descriptor to a file that was exchanged is not lost."""
    site.write("old")
    path = site.gateway.config / "gw1.conf"
    renames = [number for call, number in calls_of(site.gateway) if call == "renameat2"]
    site.write("old")
    with open(path, "ab") as stream:
        stopped = Stopped(site.gateway, "renameat2", renames[-1])
        require(stopped.wait(), "was not stopped")
        stream.write(b"written late\n")
        stream.flush()
        status, output = stopped.finish()
    require(status == 0 and "warning" in output, "ended with", output)
    found = [path for left in site.leftovers() for path in left.iterdir()
             if b"written late" in path.read_bytes()]
    require(len(found) == 1, "what was written is lost:", output)
    for left in site.leftovers():
        shutil.rmtree(left)


# Other processes --------------------------------------------------------------------------------------


def restores(site, rounds, results):
    """Old and new in turn."""
    for number in range(rounds):
        results.append(site.gateway.run("typed-load", ["old", "new"][number % 2], "no-keep"))


def contents_of(row):
    """The first words of the files in both archives that both configurations have."""
    words = set()
    for packed in row:
        with tarfile.open(fileobj=io.BytesIO(packed), mode="r:gz") as archive:
            words |= {archive.extractfile(member).read()[:3].decode() for member in archive
                      if member.name in CONFIG + DATABASE + FAILOVER}
    return words


def saves_meanwhile(site, rounds):
    """By a host of the contract library, and by the typed one."""
    site.write("old")
    gateway, results = site.gateway, []
    thread = threading.Thread(target=restores, args=(site, rounds, results))
    thread.start()
    number = 0
    while thread.is_alive():
        for verb in ("save", "typed-save"):
            gateway.do(verb, f"s{number}")
            number += 1
    thread.join()
    require(all(status == 0 for status, _ in results), "a restore ended with", results)
    kinds = {tuple(contents_of(row)) for row in gateway.query("select keybase, etc from Config "
                                                              "where name like 's%'")}
    require(kinds == {("old",), ("new",)}, "the saves found", kinds)
    gateway.query("delete from Config where name like 's%'")
    return f"{number} saves during {rounds} restores, none of a mixture"


def restores_at_once(site, rounds):
    site.write("old")
    results = []
    threads = [threading.Thread(target=restores, args=(site, rounds, results)) for _ in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    require(all(status == 0 for status, _ in results), "a restore ended with", results)
    require(site.content() in ("old", "new"), "two restores left", site.content())
    require(not site.leftovers(), "left", site.leftovers())
    return f"{len(results)} restores, two at once"


READER = """
import sys, time
paths, expected = eval(sys.stdin.readline())
passes, longest, since = 0, 0.0, None
print("ready", flush=True)
while not select.select([sys.stdin], [], [], 0)[0]:
    words, begun = set(), time.monotonic()
    for path in paths:
        with open(path, "rb") as stream:
            content = stream.read()
        if content not in expected[path]:
            sys.exit(f"{path} has {content[:50]!r}, {len(content)} bytes")
        words.add(content[:3])
    if len(words) == 1:
        since = None
    else:
        since = since or begun
        longest = max(longest, time.monotonic() - since)
    passes += 1
print(passes, longest)
"""


def reader(site, rounds):
    """Every file is there at any time, old or new and whole. How long a mixture is seen."""
    site.write("old")
    kinds = [site.gateway.expected_files(content, 300) for content in ("old", "new")]
    places = (site.gateway.config, CONFIG + DATABASE), (ETC, FAILOVER)
    names = {str(root / name): name for root, paths in places for name in paths}
    expected = {path: [kind[name] for kind in kinds] for path, name in names.items()}
    with subprocess.Popen([sys.executable, "-c", "import select" + READER], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as process:
        process.stdin.write(repr((list(names), expected)) + "\n")
        process.stdin.flush()
        process.stdout.readline()
        results = []
        restores(site, rounds, results)
        output, error = process.communicate()
    require(all(status == 0 for status, _ in results), "a restore ended with", results)
    require(process.returncode == 0, "a reader found:", error)
    passes, longest = output.split()
    require(int(passes) > rounds, "the reader read only", passes, "times")
    return f"{passes} readings of all files, a mixture for {float(longest) * 1000:.1f} ms at most"


# Processes that are killed or stopped -----------------------------------------------------------------


def killed_in_check(site):
    """The command of the check lives on, and keeps nobody from recovering."""
    site.write("old")
    gateway, before = site.gateway, site.pictures()
    alive = gateway.root / "alive"
    process = gateway.start("typed-load", "new", "no-keep", f"check=touch {alive}; exec sleep 30")
    while not alive.exists():
        time.sleep(0.005)
    status, output = gateway.run("typed-load", "old", "no-keep")
    require(status != 0 and "code 7 " in output, "a second restore during the check:", output)
    os.kill(process.pid, signal.SIGKILL)
    os.waitpid(process.pid, 0)
    process.returncode = -signal.SIGKILL
    start = time.monotonic()
    output = gateway.do("typed-recover")
    require(output.startswith("undone"), "recovery said", output)
    require(time.monotonic() - start < 10, "recovery waited for the command of the check")
    require(site.pictures() == before, "not everything was put back")
    os.killpg(process.pid, signal.SIGKILL)
    gateway.wait_for_group(process)
    alive.unlink()


def recovered_beside_a_link(site):
    """A directory becomes a link before an interrupted restore is recovered: nothing is put there."""
    gateway, outside = site.gateway, site.gateway.root / "outside"
    site.write("old")
    renames = [number for call, number in calls_of(gateway) if call == "renameat2"]
    site.write("old")
    before = site.pictures()
    stopped = Stopped(gateway, "renameat2", renames[-1])
    require(stopped.wait(), "was not stopped")
    os.killpg(stopped.process.pid, signal.SIGKILL)
    gateway.wait_for_group(stopped.process)
    user = gateway.config / "user"
    user.rename(gateway.root / "user")
    outside.mkdir()
    user.symlink_to(outside)
    status, output = gateway.run("typed-recover")
    require(status != 0 and str(user) in output, "recovery through a link ended with", output)
    require(not list(outside.iterdir()), "recovery wrote outside")
    user.unlink()
    (gateway.root / "user").rename(user)
    gateway.do("typed-recover")
    require(site.pictures() == before, "not everything was put back")
    outside.rmdir()


def stopped_before_the_exchange(site):
    """By its last call before, and killed after the first call that puts something back."""
    for _ in range(5):
        site.write("old")
        calls = calls_of(site.gateway)
        first = next(i for i, (call, _) in enumerate(calls) if call == "renameat2")
        site.write("old")
        stopped = Stopped(site.gateway, *calls[first - 1],
                          "-e", f"inject=renameat2:signal=KILL:when={calls[first][1] + 1}")
        if stopped.wait():
            return stopped
        # Not every run syncs as often, so that the call may have had another number.
        stopped.finish()
        site.gateway.do("typed-recover")
    raise Failure("was not stopped")


def killed_before_it_puts_back(site):
    """What comes out of the first exchange is somebody else's file, and the process dies right then."""
    gateway = site.gateway
    site.write("old")
    plan = gateway.do("typed-plan", "new").splitlines()
    path = pathlib.Path(next(line for line in plan if line.startswith("replace ")).split(" ", 1)[1])
    stopped = stopped_before_the_exchange(site)
    replace(path)
    before = {name: {other: seen for other, seen in found.items() if LEFT not in other}
              for name, found in site.pictures().items()}
    status, output = stopped.finish()
    require(status == -signal.SIGKILL and path.read_bytes()[:3] == b"new", "ended with", status, output)
    output = gateway.do("typed-recover")
    require(output.startswith("undone"), "recovery said", output)
    require(site.pictures() == before, "the file of somebody else, or another one, is not back:", output)


def killed_while_packing(site):
    """tar packs what is kept, and holds the lock until it ends."""
    site.write("old")
    gateway, before = site.gateway, site.pictures()
    gateway.query("delete from Config where name = 'old'")
    lives = gateway.root / "lives"
    process = gateway.start("typed-load", "new", COMMAND="cd ", BEFORE=f"touch {lives}; sleep 2")
    while not lives.exists():
        require(process.poll() is None, "nothing was packed")
        time.sleep(0.005)
    start = time.monotonic()
    os.kill(process.pid, signal.SIGKILL)
    process.wait()
    output = gateway.do("typed-recover")
    waited = time.monotonic() - start
    require(1 < waited < 20, "recovery waited", waited, "seconds for a command that packs")
    require(output.startswith("undone"), "recovery said", output)
    require(site.pictures() == before, "not everything was put back")
    gateway.wait_for_group(process)
    lives.unlink()
    gateway.remove_temporary_files()
    gateway.do("typed-save", "old")


def compared_while_deleted(site):
    """The snapshot since which nothing has changed is there as long as a save compares it."""
    site.write("old")
    site.gateway.do("typed-save", "old")
    stopped = Stopped(site.gateway, None, 0, "-P", f"{site.gateway.config}/", "-e", "trace=openat", "-e",
                      "inject=openat:signal=SIGSTOP:when=1", words=("typed-save", "old", 1, "if-changed"))
    require(stopped.wait(), "was not stopped")
    deletion = subprocess.run(["sqlite3", site.gateway.database, "delete from Config"], check=False,
                              capture_output=True)
    require(stopped.finish()[0] == 0 and b"locked" in deletion.stderr, "the snapshot was deleted")


def meet(gateway, *words):
    """The exit status, the messages, and the seconds that it took."""
    start = time.monotonic()
    result = subprocess.run([gateway.confsave, *words], env=gateway.environment(), text=True, check=False,
                            stdin=subprocess.DEVNULL, capture_output=True, timeout=60)
    return result.returncode, result.stderr, time.monotonic() - start


def stopped_holder(site):
    """Who waits for a stopped restore says so and ends in time, and who reads does not wait."""
    gateway, slowest = site.gateway, 0
    for name, says in (("mkdirat", "restoring new"), ("renameat2", "")):
        site.write("old")
        call = next(call for call in calls_of(gateway) if call[0] == name)
        site.write("old")
        stopped = Stopped(gateway, *call)
        require(stopped.wait(), "was not stopped")
        for words in (["save", "x", "--wait", "1"], ["delete", "old", "--wait", "1"], ["list"],
                      ["show", "old"], ["verify", "old"], ["status"]):
            status, text, took = meet(gateway, *words)
            slowest = max(slowest, took)
            require(took < 4, words, "took", took, "seconds")
            waits = "--wait" in words
            require(status == 8 if waits else status in (0, 8, 9), words, "ended with", status, text)
            require(not waits or says in text, words, "said", text)
        saver = gateway.start("save", "meanwhile")
        if name == "renameat2":
            time.sleep(2)
            require(saver.poll() is None, "a save did not wait for the exchange")
        status, output = stopped.finish()
        require(status == 0 and site.content() == "new", "the stopped restore ended with", output)
        require(saver.wait(60) == 0, "the save ended with", saver.stdout.read())
        saver.stdout.close()
    return f"who met a stopped restore ended after {slowest:.1f} s at most"


def campaign(program, full, source):
    with Gateway(program) as gateway:
        site = Site(gateway)
        figures = [changes(site, full, source), saves_meanwhile(site, 200 if full else 10),
                   restores_at_once(site, 100 if full else 5), reader(site, 500 if full else 20)]
        for alone in (keep_written, killed_in_check, killed_before_it_puts_back, killed_while_packing,
                      recovered_beside_a_link, compared_while_deleted):
            alone(site)
        figures.append(stopped_holder(site))
        gateway.require_integrity()
    return "; ".join(figures)


main(campaign)
