#!/usr/bin/env python3
"""Restores random snapshots twice: by the typed library, and by the contract library on the same tree.

    differential.py OPERATE [--full] [--seed=N]

Both leave the same files. Only where the contract library gives a directory that is no member the mode of
the umask (quirk Q61), the typed one leaves it alone, or makes it with mode 0700. Where the contract library
fails, the typed one restores all or nothing. The plan is what was done, and a second restore does nothing.
"""

import collections
import dataclasses
import os
import random
import shutil
import subprocess
import tarfile

from gateway import ETC, Failure, Gateway, main, require
from makers import Hand, make_snapshot, store, stored_row
from trees import (ACCESS, CONFIGURATION, DIRECTORY, FAILOVER, FILE, GROUP_OBJ, HARD, LINK, MASK,
                   NOBODY_IN_PARTICULAR, OTHER, OTHERS, USER, USER_OBJ, Node, clear, draw, groups, make,
                   mutate, pack_list, picture)
from wanted import IMPLICIT, after, wanted

DONE = "done\n"


class Site:
    """The directories that a restore may change, and what is in them."""

    def __init__(self, gateway, target):
        self.gateway = gateway
        self.roots = {"config": gateway.config, "etc": ETC}
        if target:
            self.roots["target"] = gateway.root / "target"
            self.roots["target"].mkdir(exist_ok=True)

    def fill(self, trees):
        for name, root in self.roots.items():
            clear(root)
            make(root, trees.get(name, {}))

    def pictures(self):
        return {name: picture(root) for name, root in self.roots.items()}

    def words(self):
        return [f"{self.roots['target']}/"] if "target" in self.roots else []

    def place(self, absolute):
        """The directory and the relative path of an absolute one."""
        for name, root in self.roots.items():
            if absolute.startswith(f"{root}/"):
                return name, absolute[len(str(root)) + 1:]
        return None, absolute


def draw_trees(source, target):
    """What is stored, and what is live."""
    paths = CONFIGURATION + (OTHERS if source.random() < 0.5 else [])
    stored = {"config": draw(source, paths, source.random(), source.choice([0, 0, 3])),
              "etc": draw(source, FAILOVER, source.choice([0, 0.4, 1, 1]))}
    share = source.choice([0, 0.1, 0.3, 0.7])
    live = {"config": mutate(source, stored["config"], CONFIGURATION + OTHERS, share),
            "etc": mutate(source, stored["etc"], FAILOVER, share)}
    if target:
        both = {**stored["etc"], **stored["config"]}
        live["target"] = mutate(source, both, CONFIGURATION + FAILOVER, share)
    return stored, live


def read_plan(output, site):
    """The changes by (directory, path), and the files that stay."""
    changes, extra = {}, set()
    for line in output.removesuffix(DONE).splitlines():
        action, flags, path = line.split(" ")
        place = site.place(os.fsdecode(bytes.fromhex(path)))
        if action == "extra":
            extra.add(place)
        else:
            require(place not in changes, "planned twice:", place)
            changes[place] = (action, flags.rstrip("."))
    return changes, extra


def flags_between(old, new):
    """As a comparison names them: content, mode, owner, group, time."""
    kind = old.kind != new.kind
    mode = 0o777 if old.kind == LINK else old.mode
    return "".join(letter for letter, differs in (
        ("c", kind or old.content != new.content), ("p", mode != new.mode and new.kind != LINK),
        ("u", old.uid != new.uid), ("g", old.gid != new.gid),
        ("t", old.time != new.time and new.kind != DIRECTORY)) if differs)


def done_to(before, now):
    """What was done to each path, in the words of a plan."""
    done = {}
    for name, seen in now.items():
        for path in seen.keys() | before[name].keys():
            old, new = before[name].get(path), seen.get(path)
            if old is None or new is None:
                done[name, path] = ("create" if old is None else "remove", "")
            elif not old.same(new):
                flags = flags_between(old, new)
                done[name, path] = ("replace" if "c" in flags else "attributes", flags)
    return done


def require_plan(plan, before, now):
    """What was planned is what was done. A path that only gets another inode is planned too, where a hard
    link is made or goes, and for the journal of a database that changes."""
    done = done_to(before, now)
    for place in plan.keys() | done.keys():
        if place in done:
            require(plan.get(place) == done[place], place, "was planned as", plan.get(place),
                    "and done:", done[place])
            continue
        old, new = before[place[0]].get(place[1]), now[place[0]].get(place[1])
        is_linked = old is not None and new is not None and max(old.links, new.links) > 1
        is_journal = place[1].endswith("-journal") and any(
            (place[0], f"user/config.{end}") in plan for end in ("db", "idx"))
        require(is_linked or is_journal, place, plan[place], "was planned and not done")


def require_untouched(before, now, what):
    """The same files with the same inodes."""
    for name, seen in before.items():
        for path in seen.keys() | now[name].keys():
            require(seen.get(path) == now[name].get(path), what, "changed", name, path, seen.get(path),
                    now[name].get(path))


def require_rest_untouched(before, now, plan):
    """What is not in the plan is the same file."""
    for name, seen in before.items():
        for path, old in seen.items():
            new = now[name].get(path)
            if (name, path) not in plan and new is not None and old.links == 1 == new.links:
                require(old.inode == new.inode and old.nanoseconds == new.nanoseconds, name, path,
                        "was written although nothing differs")


class Case:
    """One tree and one snapshot."""

    def __init__(self, source, gateway, way):
        self.gateway, self.way = gateway, way
        self.kind = source.choice([1, 1, 2, 3] if way in ("save", "typed-save") else [1, 1, 2, 3, 0, 7])
        self.site = Site(gateway, source.random() < 0.25)
        self.stored, self.live = draw_trees(source, "target" in self.site.roots)
        self.umask = source.choice([0o022, 0o022, 0o077, 0o027, 0])
        self.keep = [] if source.random() < 0.1 else ["no-keep"]
        self.source = source

    def operate(self, verb, *words):
        os.umask(self.umask)
        try:
            return self.gateway.run(verb, "weekly", *self.site.words(), *words)
        finally:
            os.umask(0o022)

    def expected(self, before):
        files = wanted(stored_row(self.gateway), "target" in self.site.roots)
        return files, {name: after(seen, files.get(name, {}), name != "etc" and name in files)
                       for name, seen in before.items()}

    def restore(self):
        """By the typed library: the files of before and after, the plan and the answer."""
        self.site.fill(self.live)
        before = self.site.pictures()
        status, planned = self.operate("typed-differences")
        require_untouched(before, self.site.pictures(), "a plan")
        result, output = self.operate("typed-load", *self.keep)
        now = self.site.pictures()
        if "cannot hold this file" in output:
            require_untouched(before, now, "what cannot be kept")
            self.keep = ["no-keep"]
            return self.restore()
        if result != 0:
            require_untouched(before, now, f"a restore that failed with {output!r}")
            return before, now, output
        require(status == 0, "a restore was done without a plan:", planned)
        plan, _ = read_plan(planned, self.site)
        require_plan(plan, before, now)
        require_rest_untouched(before, now, plan)
        self.require_equal_does_nothing(now)
        return before, now, DONE

    def require_equal_does_nothing(self, now):
        status, planned = self.operate("typed-differences")
        require(status == 0 and not read_plan(planned, self.site)[0], "planned for an equal tree:", planned)
        status, output = self.operate("typed-load", *self.keep)
        require(output == DONE, "a second restore ended with", status, output)
        require_untouched(now, self.site.pictures(), "a second restore")

    def require_expected(self, now, files, expected):
        for name, seen in now.items():
            for path in seen.keys() | expected[name].keys():
                found, right = seen.get(path), expected[name].get(path)
                require(found is not None and right is not None, name, path, "is", found, "and not", right)
                if right is IMPLICIT:
                    node = self.stored["config"].get(path) if self.way == "typed-save" else None
                    made = (node.mode, node.uid, node.gid) if node else (0o700, 0, 0)
                    require((found.kind, found.mode, found.uid, found.gid) == (DIRECTORY, *made),
                            name, path, "was made as", found, "and not with", made)
                else:
                    require(found.same(right), name, path, "is", found, "and not", right)
            same = {frozenset(path for path, other in files.get(name, {}).items() if other is what)
                    for what in files.get(name, {}).values() if what.kind != DIRECTORY}
            require(groups(seen, files.get(name, {})) == {group for group in same if len(group) > 1},
                    name, "hard links are", groups(seen, files.get(name, {})))

    def require_same(self, typed, contract, files):
        """Except directories that are no members, and set-id and sticky bits of directories: cp leaves
        those that a directory has or inherits."""
        for name, seen in typed.items():
            own = files.get(name, {})
            for path in seen.keys() | contract[name].keys():
                one, other = seen.get(path), contract[name].get(path)
                require(one and other, name, path, one, "but by the contract", other)
                is_directory = one.kind == other.kind == DIRECTORY
                if is_directory:
                    one = dataclasses.replace(one, mode=one.mode | other.mode & 0o7000)
                require(is_directory and path not in own or one.same(other),
                        name, path, one, "but by the contract", other)
            require(groups(seen, own) == groups(contract[name], own), name, "has other hard links")

    def run(self):
        """What became of it by both libraries."""
        self.site.fill(self.stored)
        try:
            make_snapshot(self.source, self.gateway, self.stored, self.way, self.kind)
        except (Failure, subprocess.CalledProcessError):
            return "not made"
        before, typed, answer = self.restore()
        files, expected = self.expected(before)
        if answer == DONE:
            self.require_expected(typed, files, expected)
        self.site.fill(self.live)
        status, _ = self.operate("load")
        if status != 0:
            return "only by the second" if answer == DONE else "by neither"
        require(answer == DONE, "only the contract library restores this; the typed one says", answer)
        self.require_same(typed, self.site.pictures(), files)
        return "by both"


# What is better here, each with a tree of its own ---------------------------------------------------------


def by_both(gateway, prepare, look):
    """What both libraries leave, that of the contract library first."""
    found = []
    for verb in ("load", "typed-load"):
        ETC.mkdir(exist_ok=True)
        clear(gateway.config)
        clear(ETC)
        make(gateway.config, {"user/filter.conf": Node(FILE, data=b"live"), "user/config.db": Node(FILE),
                              "gw.d/1": Node(FILE), "gw.d/2": Node(FILE), "gw1": Node(FILE),
                              "gw2": Node(FILE)})
        make(ETC, {"failover.ini": Node(FILE)})
        prepare()
        gateway.run(verb, "weekly", *(["no-keep"] if verb == "typed-load" else []))
        found.append(look())
    ETC.mkdir(exist_ok=True)
    return found


def require_better(gateway):
    """Parents, access lists, snapshots without failover files, failures, and the times of directories."""
    config, user = gateway.config, gateway.config / "user"
    listed = pack_list([(USER, 4, 1000), *((tag, bits, NOBODY_IN_PARTICULAR) for tag, bits in (
        (USER_OBJ, 6), (GROUP_OBJ, 4), (MASK, 4), (OTHER, 0)))])

    def snapshot(etc):
        hand = Hand(random.Random(1), tarfile.GNU_FORMAT, False, "./")
        keybase = {"user/filter.conf": Node(FILE, data=b"stored", mode=0o640), "gw.d/1": Node(FILE),
                   "gw.d": Node(DIRECTORY, mode=0o755, time=10**18), "peer.d": Node(DIRECTORY, time=10**18),
                   "peer.d/1": Node(FILE), "gw1": Node(FILE),
                   "gw2": Node(HARD, target="gw1")}
        store(gateway, 1, hand.pack(keybase, list(keybase)), hand.pack(etc, list(etc)))

    snapshot({"failover.ini": Node(FILE, data=b"stored")})
    os.umask(0o022)
    found = by_both(gateway, lambda: (user.chmod(0o700), os.chown(user, 33, 33)),
                    lambda: (user.stat().st_mode & 0o777, user.stat().st_uid))
    require(found == [(0o755, 0), (0o700, 33)], "a directory that is no member:", found)
    found = by_both(gateway, lambda: (os.setxattr(user / "filter.conf", ACCESS, listed),
                                      os.setxattr(user / "filter.conf", "user.mark", b"1")),
                    lambda: sorted(os.listxattr(user / "filter.conf")))
    require(found == [[], [ACCESS, "user.mark"]], "attributes of a replaced file:", found)
    found = by_both(gateway, lambda: os.utime(config / "gw.d", (5, 5)),
                    lambda: [int((config / name).stat().st_mtime) for name in ("gw.d", "peer.d")])
    require(found == [[10**9, 10**9], [5, 10**9]], "the times of directories:", found)
    found = by_both(gateway, lambda: None, lambda: (config / "gw2").stat().st_nlink)
    require(found == [2, 2], "names of one file:", found)
    found = by_both(gateway, lambda: shutil.rmtree(ETC),
                    lambda: ((user / "config.db").exists(), (user / "filter.conf").read_text()))
    require(found == [(False, "live"), (True, "live")], "without a failover directory:", found)
    snapshot({})
    found = by_both(gateway, lambda: None,
                    lambda: ((user / "config.db").exists(), (user / "filter.conf").read_text()))
    require(found == [(False, "live"), (False, "stored")], "a snapshot without failover files:", found)


WAYS = ["save", "typed-save", "tar", "tar", "hand", "hand", "hand"]


def campaign(program, full, source):
    outcomes = collections.Counter()
    with Gateway(program) as gateway:
        gateway.do("save", "first")
        require_better(gateway)
        for number in range(2200 if full else 24):
            way = WAYS[number % len(WAYS)]
            case = Case(source, gateway, way)
            try:
                outcomes[case.run()] += 1
            except Exception as failure:
                raise type(failure)(f"tree {number}, {way}, type {case.kind}: {failure}") from failure
            gateway.remove_temporary_files()
    require(outcomes["by both"] >= sum(outcomes.values()) / 2, "too few restored by both:", dict(outcomes))
    return ", ".join(f"{count} {outcome}" for outcome, count in outcomes.most_common())


if __name__ == "__main__":
    main(campaign)
