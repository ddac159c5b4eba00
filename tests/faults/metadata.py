#!/usr/bin/env python3
"""Restores random trees with hard links, holes, access lists, extended attributes, owners and odd names.

    metadata.py OPERATE [--full] [--seed=N]

A restore that is taken back leaves everything as it was, the same inodes. One that is done leaves the files
as they were saved, carries access lists and extended attributes of replaced files over, and lets nobody
read what neither the file of before nor the mode of the snapshot let him read.
"""

import os
import shlex

from gateway import Gateway, main, require
from differential import Site, read_plan, require_plan, require_untouched
from makers import make_snapshot, stored_row
from trees import (ACCESS, CONFIGURATION, DEFAULT, DIRECTORY, FAILOVER, FILE, GROUP, GROUP_OBJ, LINK, MASK,
                   NOBODY_IN_PARTICULAR, OTHER, OTHERS, USER, USER_OBJ, Node, draw, draw_name, drop, groups,
                   insert, mutate, pack_list, unpack_list)
from wanted import DATABASE, IMPLICIT, after, wanted

IDS = [1, 33, 1000, 65534]
SUBJECTS = [(uid, frozenset(gids)) for uid in (7, 1, 33, 1000, 65534)
            for gids in ((), (1,), (33, 1000), (65534,))]


# Access lists -----------------------------------------------------------------------------------------


def draw_list(source, mode):
    """One whose mask is the group's bits of the mode."""
    entries = [(USER_OBJ, mode >> 6 & 7, NOBODY_IN_PARTICULAR), (OTHER, mode & 7, NOBODY_IN_PARTICULAR),
               (GROUP_OBJ, source.choice([0, 4, 5, 6, 7]), NOBODY_IN_PARTICULAR),
               (MASK, mode >> 3 & 7, NOBODY_IN_PARTICULAR)]
    for tag in (USER, GROUP):
        entries += [(tag, source.choice([0, 4, 5, 6, 7]), who)
                    for who in source.sample(IDS, source.randint(0, 2))]
    return pack_list(entries)


def dress(source, nodes):
    for node in nodes.values():
        if node.kind in (FILE, DIRECTORY) and source.random() < 0.5:
            node.attributes[ACCESS] = draw_list(source, node.mode)
        if node.kind == DIRECTORY and source.random() < 0.4:
            node.attributes[DEFAULT] = draw_list(source, source.choice([0o777, 0o755, 0o070]))
        for name in ("user.mark", "trusted.mark", "security.mark", "user." + "n" * 200):
            if node.kind in (FILE, DIRECTORY) and source.random() < 0.2:
                node.attributes[name] = source.randbytes(source.choice([0, 1, 300]))


def entries_of(seen):
    """The access list that decides about a file, or what its mode says."""
    found = dict(seen.attributes).get(ACCESS)
    if found:
        return unpack_list(found)
    return [(GROUP_OBJ, seen.mode >> 3 & 7, 0), (OTHER, seen.mode & 7, 0)]


def access(seen, entries, uid, gids):
    """The bits that somebody who is not the owner has."""
    mask = next((bits for tag, bits, _ in entries if tag == MASK), 7)
    for tag, bits, who in entries:
        if tag == USER and who == uid:
            return bits & mask
    in_group = [bits for tag, bits, who in entries if tag == GROUP_OBJ and seen.gid in gids
                or tag == GROUP and who in gids]
    if in_group:
        return mask & (in_group[0] if len(in_group) == 1 else max_of(in_group))
    return next(bits for tag, bits, _ in entries if tag == OTHER)


def max_of(several):
    """Each bit is granted by one of the groups."""
    result = 0
    for bits in several:
        result |= bits
    return result


def require_no_gain(path, old, new, right):
    """`right` is what the snapshot says, and nothing for what is no member."""
    reads = 5 if new.kind == DIRECTORY else 4
    for uid, gids in SUBJECTS:
        if new.uid == uid:
            continue  # An owner may give himself what he likes.
        had = access(old, entries_of(old), uid, gids) if old is not None else 0
        if right is not IMPLICIT and right is not old:
            mode = [(GROUP_OBJ, right.mode >> 3 & 7, 0), (OTHER, right.mode & 7, 0)]
            had |= access(right, mode, uid, gids)
        has = access(new, entries_of(new), uid, gids)
        require(has & reads & ~had == 0, path, "can be read by", uid, sorted(gids), "now:", old, new, right)


def require_carried_over(path, old, new):
    kept, found = dict(old.attributes), dict(new.attributes)
    lists = [{(tag, who) for tag, _, who in unpack_list(one.pop(ACCESS))} if ACCESS in one else None
             for one in (kept, found)]
    require(kept == found, path, "had the attributes", kept, "and has", found)
    if old.uid not in (0, new.uid):
        return  # Who owned the old file has no say in who reads the new one.
    require(lists[0] == lists[1], path, "had the access list", lists[0], "and has", lists[1])


# The campaign -----------------------------------------------------------------------------------------


class Case:
    def __init__(self, source, gateway, figures):
        self.source, self.gateway, self.figures = source, gateway, figures
        self.site = Site(gateway, False)
        paths = CONFIGURATION + OTHERS
        odd = source.randint(0, 6)
        self.stored = {"config": draw(source, paths, source.random(), odd),
                       "etc": draw(source, FAILOVER, 1)}
        share = source.choice([0.2, 0.5, 0.9])
        self.live = {"config": mutate(source, self.stored["config"], paths, share),
                     "etc": mutate(source, self.stored["etc"], FAILOVER, share)}
        for letter in "\n\t\\":
            insert(source, self.live["config"], "user/key_set/" + draw_name(source)[:10] + letter, FILE)
        for path in DATABASE:
            # A directory there is refused.
            if getattr(self.live["config"].get(path), "kind", FILE) == DIRECTORY:
                drop(self.live["config"], path)
            # The kernel follows no link in a sticky directory of somebody else, so that a save is refused.
            if getattr(self.stored["config"].get(path), "kind", FILE) == LINK:
                drop(self.stored["config"], path)
        for nodes in (*self.stored.values(), *self.live.values()):
            dress(source, nodes)

    def dress_roots(self):
        """What is made in the roots inherits a list that lets all read."""
        for root in self.site.roots.values():
            for name in (ACCESS, DEFAULT):
                if name in os.listxattr(root):
                    os.removexattr(root, name)
            os.chmod(root, 0o755)
            if self.source.random() < 0.5:
                os.setxattr(root, DEFAULT, pack_list(
                    [(tag, 7, NOBODY_IN_PARTICULAR) for tag in (USER_OBJ, GROUP_OBJ, MASK, OTHER)]
                    + [(USER, 7, 1000)]))

    def take_back(self, before):
        """A check looks at the staging directories, and fails."""
        witness = self.gateway.root / "witness"
        places = " ".join(f"{shlex.quote(str(root))}/.confsave-restore-*"
                          for root in self.site.roots.values())
        command = f"stat -c '%a %u %F' {places} 2>/dev/null >{witness}; false"
        status, output = self.gateway.run("typed-load", "weekly", "no-keep", f"check={command}")
        require_untouched(before, self.site.pictures(), f"a restore that was taken back: {output!r},")
        if witness.exists():
            seen = set(witness.read_text().splitlines())
            require(seen == {"700 0 directory"}, "others can enter the staging directory:", seen)
            self.figures["taken back"] += 1
            witness.unlink()
            require(status != 0, "the check failed, and the restore was done")
        return status == 0

    def restore(self, before, way):
        status, planned = self.gateway.run("typed-differences", "weekly")
        require(status == 0, "no plan:", planned)
        plan, _ = read_plan(planned, self.site)
        self.gateway.do("typed-load", "weekly", "no-keep")
        now = self.site.pictures()
        require_plan(plan, before, now)
        files = wanted(stored_row(self.gateway), False)
        for name, seen in now.items():
            right = after(before[name], files.get(name, {}), name == "config")
            require(seen.keys() == right.keys(), name, "has other paths:", seen.keys() ^ right.keys())
            for path, new in seen.items():
                old, expected = before[name].get(path), right[path]
                if expected is IMPLICIT and way == "typed-save":
                    # The snapshot says how a directory was that is no member.
                    expected = self.stored[name][path]
                self.require_file(f"{name} {path!r}", old, new, expected)
            members = files.get(name, {})
            same = {frozenset(path for path, other in members.items() if other is what)
                    for what in members.values() if what.kind != DIRECTORY}
            require(groups(seen, members) == {group for group in same if len(group) > 1},
                    name, "has other hard links")
        self.figures["paths"] += len(plan)

    def require_file(self, path, old, new, right):
        if right is IMPLICIT or isinstance(right, Node):
            require(new.kind == DIRECTORY, path, new)
            require(right is IMPLICIT or (new.mode, new.uid, new.gid) == (right.mode, right.uid, right.gid),
                    path, "is", new, "and was saved as", right)
        else:
            require(new.same(right), path, "is", new, "and not", right)
        if new.kind == LINK:
            return
        replaced = old is not None and old.kind == new.kind
        if old is None or old.kind != new.kind:
            require(not new.attributes or new.links > 1, path, "is new and has", new.attributes)
        elif new.inode == old.inode and right is old:
            require(new.attributes == old.attributes, path, "was not restored, and has", new.attributes)
        elif new.links == 1 == old.links or new.kind == DIRECTORY:
            require_carried_over(path, old, new)
            self.figures["carried over"] += 1
        if new.links <= 1:
            require_no_gain(path, old if replaced else None, new, right)

    def run(self):
        self.site.fill(self.stored)
        way = self.source.choice(["typed-save", "save", "tar", "hand"])
        make_snapshot(self.source, self.gateway, self.stored, way, 1)
        self.dress_roots()
        self.site.fill(self.live)
        before = self.site.pictures()
        if not self.take_back(before):
            self.restore(before, way)


def campaign(program, full, source):
    figures = {"taken back": 0, "carried over": 0, "paths": 0}
    with Gateway(program) as gateway:
        gateway.do("save", "first")
        count = 1000 if full else 20
        for number in range(count):
            try:
                Case(source, gateway, figures).run()
            except Exception as failure:
                raise type(failure)(f"tree {number}: {failure}") from failure
    require(all(figures.values()), "nothing was shown:", figures)
    return (f"{count} trees, {figures['paths']} paths restored, {figures['taken back']} restores taken "
            f"back, attributes of {figures['carried over']} files carried over, nobody can read more")


main(campaign)
