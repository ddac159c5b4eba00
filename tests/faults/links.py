#!/usr/bin/env python3
"""Lets another user exchange a directory for a link while a configuration is restored.

    links.py OPERATE [--full] [--seed=N]

The contract library follows such links (quirk Q66): files get written outside the configuration, in a
number of tries that is reported and must not be 0. The typed library never writes outside; what it leaves
is the old configuration or the new one.

Where no other user can be had the campaign is skipped, with status 77.
"""

import os
import re
import shutil
import subprocess
import sys

from gateway import ETC, FAILOVER, Gateway, main, remove, require
from stored import found_by_library

NOBODY = 65534

OTHER_USER = f"""
import ctypes, os, random, sys, time
os.setgroups([]); os.setgid({NOBODY}); os.setuid({NOBODY})
directory, name, outside = sys.argv[1:]
link = f"{{directory}}/link"
os.symlink(outside, link)
print("ready", flush=True)
"""

# A directory that is there, for a link to the outside, and back, as often as it can.
EXCHANGER = OTHER_USER + """
exchange = ctypes.CDLL(None).renameat2
while True:
    exchange(-100, os.fsencode(f"{directory}/{name}"), -100, os.fsencode(link), 2)
    time.sleep(random.random() * 0.001)
"""

# The restore's own directory, as soon as it is there.
REPLACER = OTHER_USER + """
while True:
    for entry in os.listdir(directory):
        if len(entry) == 6 and entry.isalnum():
            os.rename(f"{directory}/{entry}", f"{directory}/moved away")
            os.rename(link, f"{directory}/{entry}")
            sys.exit()
"""


# The same for the typed library, again and again.
STAGING_REPLACER = OTHER_USER + """
number = 0
while True:
    for entry in os.listdir(directory):
        if entry.startswith(".confsave-restore-") and not os.path.islink(f"{directory}/{entry}"):
            try:
                os.rename(f"{directory}/{entry}", f"{directory}/moved {number}")
                os.rename(link, f"{directory}/{entry}")
            except OSError:
                pass
            number += 1
            if not os.path.islink(link):
                os.symlink(outside, link)
"""


class Attack:
    """An open directory, and what somebody else does in it."""

    def __init__(self, gateway, opened, script, victim=""):
        self.gateway, self.outside = gateway, gateway.root / "outside"
        self.opened, self.script, self.victim = gateway.config / opened, script, victim

    def prepare(self):
        shutil.rmtree(self.gateway.config)
        shutil.rmtree(self.outside, ignore_errors=True)
        self.outside.mkdir()
        make_configuration(self.gateway, "new")
        self.opened.chmod(0o777)

    def gets_out(self, operation):
        """Whether a file was written outside."""
        self.prepare()
        words = [sys.executable, "-c", self.script, self.opened, self.victim, self.outside]
        with subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as other:
            require(other.stdout.readline() == b"ready\n", "there is nobody else")
            operation()
            other.kill()
        return any(self.outside.iterdir())


def make_configuration(gateway, content):
    (gateway.config / "hub").mkdir(parents=True)
    (gateway.config / "user" / "key_set").mkdir(parents=True)
    gateway.write_configuration(content)
    for number in range(100):
        (gateway.config / "user" / "key_set" / str(number)).write_text(content)


def outcomes(attack, operation, tries):
    """Whether files got out, in so many tries; in ten times as many where the other user is too slow."""
    out = []
    while len(out) < tries or (not any(out) and len(out) < 10 * tries):
        out.append(attack.gets_out(operation))
    require(any(out), "nothing was exchanged in time in", attack.opened)
    return out


# The typed library -----------------------------------------------------------------------------------


class Loop:
    """Another user who never stops, in a directory that is open to him."""

    def __init__(self, gateway, opened, script, victim=""):
        self.gateway, self.outside = gateway, gateway.root / "outside"
        self.opened, self.script, self.victim = opened, script, victim
        self.done = self.refused = 0
        self.other = None

    def start(self):
        goal = self.outside if self.script is STAGING_REPLACER or (self.opened / self.victim).is_dir() \
            else self.outside / "victim"
        words = [sys.executable, "-c", self.script, self.opened, self.victim, goal]
        self.opened.chmod(0o777)
        self.other = subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        require(self.other.stdout.readline() == b"ready\n", "there is nobody else")

    def stop(self):
        """What the other user did is undone by hand, and what was interrupted by the library."""
        self.other.kill()
        self.other.wait()
        self.other.stdout.close()
        link, victim = self.opened / "link", self.opened / self.victim
        if self.victim and victim.is_symlink():
            victim.unlink()
            link.rename(victim)
        elif os.path.lexists(link):
            remove(link)
        for path in [*self.opened.glob("moved *"), *self.opened.glob(".confsave-restore-*")]:
            if path.is_symlink() or path.name.startswith("moved"):
                remove(path)
        self.recover()

    def recover(self):
        """What a person has to move away is named; then it works."""
        for number in range(10):
            status, output = self.gateway.run("typed-recover")
            if status == 0:
                return
            found = re.match(r"exception code 18 number 0 mixed (/.*?): somebody else", output)
            require(found, "recovery ended with", output)
            os.rename(found.group(1), self.gateway.root / f"away {number}")
            remove(self.gateway.root / f"away {number}")
        require(False, "recovery has no end")

    def restore(self, name):
        status, output = self.gateway.run("typed-load", name, "no-keep")
        names = sorted(path.name for path in self.outside.iterdir())
        text = (self.outside / "victim").read_text()
        require((names, text) == (["victim"], "untouched"), "outside:", names, text)
        if status == 0:
            self.done += 1
            return True
        self.refused += 1
        require(re.match(r"exception code \d+ .*/", output), "was refused without a path:", output)
        return "code 18 " not in output and "mixed" not in output

    def is_armed(self):
        """False when the link was restored away."""
        return not self.victim or any(path.is_symlink() for path in (self.opened / "link",
                                                                     self.opened / self.victim))

    def run(self, tries):
        self.start()
        for number in range(tries):
            if not self.restore(["old", "new"][number % 2]) or not self.is_armed():
                self.stop()
                self.start()
        self.stop()
        for name in ("old", "new"):
            self.gateway.do("typed-load", name, "no-keep")
            require_whole(self.gateway, name)


def require_whole(gateway, content):
    names = [gateway.config / "user" / "key_set" / str(number) for number in range(100)]
    names += [gateway.config / "gw1.conf", gateway.config / "hub" / "out"]
    names += [ETC / name for name in FAILOVER]
    found = {path.read_text().split(" ")[0] for path in names}
    require(found == {content}, "there is a mixture of", found)
    left = [*gateway.config.glob(".confsave*"), *ETC.glob(".confsave*")]
    require(not left, "left", left)


def attack_second_library(gateway, tries):
    """How many restores were done and refused."""
    attacks = [(gateway.config, EXCHANGER, "user"), (gateway.config, EXCHANGER, "hub"),
               (gateway.config / "user", EXCHANGER, "key_set"), (gateway.config, EXCHANGER, "gw1.conf"),
               (ETC, EXCHANGER, "failover.ini"), (gateway.config, STAGING_REPLACER, ""),
               (ETC, STAGING_REPLACER, "")]
    done = refused = 0
    for opened, script, victim in attacks:
        shutil.rmtree(gateway.config)
        shutil.rmtree(gateway.root / "outside", ignore_errors=True)
        make_configuration(gateway, "new")
        (gateway.root / "outside").mkdir()
        (gateway.root / "outside" / "victim").write_text("untouched")
        loop = Loop(gateway, opened, script, victim)
        loop.run(tries)
        opened.chmod(0o755)
        done, refused = done + loop.done, refused + loop.refused
    require(done and refused, "of the restores", done, "were done and", refused, "refused")
    return done, refused


def skip_without_another_user():
    if subprocess.run([sys.executable, "-c", f"import os; os.setuid({NOBODY})"], check=False,
                      stderr=subprocess.DEVNULL).returncode != 0:
        print("links: SKIPPED, nothing is shown: there is no other user here; run it as root.")
        sys.exit(77)


def campaign(program, full, source):
    skip_without_another_user()
    with Gateway(program) as gateway:
        os.chmod(gateway.root, 0o755)
        shutil.rmtree(gateway.config)
        make_configuration(gateway, "old")
        gateway.do("save", "weekly")
        gateway.keep_state()
        attacks = [Attack(gateway, ".", REPLACER), Attack(gateway, "user", EXCHANGER, "key_set")]
        first, second = (outcomes(attack, lambda: gateway.run("load", "weekly"), 20 if full else 4)
                         for attack in attacks)
        require(len(found_by_library(gateway)) == 1, "the snapshot is lost")
        for content in ("old", "new"):
            shutil.rmtree(gateway.config)
            make_configuration(gateway, content)
            gateway.do("typed-save", content)
        done, refused = attack_second_library(gateway, 1000 if full else 12)
    return (f"by the contract library files got out in {sum(first)} of {len(first)} tries with the "
            f"configuration directory open and in {sum(second)} of {len(second)} with user/ open; "
            f"by the typed one never, {done} restores were done and {refused} refused")


main(campaign)
