#!/usr/bin/env python3
"""Lets another user exchange a directory for a link while a configuration is restored.

    links.py OPERATE [--full] [--seed=N]

The library follows such links (quirk Q66): files get written outside the configuration, in a number of
tries that is reported and must not be 0. The program refuses to load into directories that others can
change, and into links, and writes nothing.

Where no other user can be had the campaign is skipped, with status 77.
"""

import os
import shutil
import subprocess
import sys

from gateway import Gateway, main, require
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


def load_by_program(gateway):
    return subprocess.run([gateway.confsave, "load", "weekly", "--yes"], env=gateway.environment(),
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60, check=False)


def require_refusal(gateway, path, why):
    before = {str(p): p.read_bytes() for p in gateway.config.rglob("*") if p.is_file()}
    result = load_by_program(gateway)
    refused = result.returncode == 1 and f"'{path}'" in result.stderr
    require(refused, why, "was not refused:", result.returncode, result.stderr)
    after = {str(p): p.read_bytes() for p in gateway.config.rglob("*") if p.is_file()}
    require(before == after, why, "was refused, and files changed")


def outcomes(attack, operation, tries):
    """Whether files got out, in so many tries; in ten times as many where the other user is too slow."""
    out = []
    while len(out) < tries or (not any(out) and len(out) < 10 * tries):
        out.append(attack.gets_out(operation))
    require(any(out), "nothing was exchanged in time in", attack.opened)
    return out


def refusals(gateway, attacks):
    """What the program says to each of the directories that others can lead elsewhere."""
    count = 0
    for attack in attacks:
        attack.prepare()
        require_refusal(gateway, attack.opened, f"{attack.opened} open to others")
        require(not attack.gets_out(lambda: load_by_program(gateway)), "the program wrote outside")
        count += 2
    for name in ("user", "hub", "user/key_set"):
        attacks[0].prepare()
        gateway.config.chmod(0o755)
        os.chown(gateway.config / name, NOBODY, NOBODY)
        require_refusal(gateway, gateway.config / name, f"{name} of another user")
        shutil.rmtree(gateway.config / name)
        (gateway.config / name).symlink_to(gateway.root / "outside")
        require_refusal(gateway, gateway.config / name, f"{name} a link")
        require(not any((gateway.root / "outside").iterdir()), "the program wrote through a link")
        count += 2
    attacks[0].prepare()
    gateway.config.chmod(0o755)
    result = load_by_program(gateway)
    require(result.returncode == 0, "directories of our own were refused:", result.stderr)
    return count


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
        count = refusals(gateway, attacks)
    return (f"by the library files got out in {sum(first)} of {len(first)} tries with the configuration "
            f"directory open and in {sum(second)} of {len(second)} with user/ open; "
            f"the program refused in {count} cases")


main(campaign)
