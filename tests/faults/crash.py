#!/usr/bin/env python3
"""Cuts the power in the middle of a change of the storage.

    crash.py OPERATE [--full] [--seed=N]

The system calls of one overwrite, by either library, and of one deletion on the state directory are
recorded, of a small snapshot and of one that SQLite's cache does not hold, with notes and without: then
nothing that the notes sync keeps the storage. disk_model.py says what a power
cut leaves of them. In each state the library lists and loads first, then the program, each from a copy of
its own: both find the old snapshot or both the new one, whole. Only then the database itself is looked at,
and the typed library verifies all. What the typed library has reported as done lasts.
"""

import pathlib

from disk_model import Disk, Sync, write_tree
from gateway import Gateway, has_hot_journal, main, require
from stored import require_stored
from system_calls import record


class Change:
    """The power cuts in one change of the snapshot "weekly"."""

    def __init__(self, gateway, verb, size, notes=True):
        gateway.write_configuration("old", 8000)
        gateway.do(verb.replace("remove", "save"), "kept")
        gateway.do(verb.replace("remove", "save"), "weekly")
        self.gateway, self.is_removal = gateway, verb == "typed-remove"
        old, new = gateway.expected_files("old", 8000), gateway.expected_files("new", size)
        self.expected = {"kept": [old], "weekly": [old] if self.is_removal else [old, new]}
        if not notes:
            (gateway.state / "notes.db").unlink()
            # A save without a note is a save; a deletion has to know that there is no pin.
            if not self.is_removal:
                (gateway.state / "notes.db").mkdir()
        gateway.write_configuration("new", size)
        self.recorder = record(gateway, [gateway.state], verb, "weekly")
        require(any(isinstance(event, Sync) for event in self.recorder.events), "nothing was synced")
        # By the contract library a journal may come back, and with it the old snapshot.
        self.lasts = self.recorder.said if verb.startswith("typed") else None
        self.seen, self.states, self.found, self.hot = set(), 0, [0, 0], 0
        self.after = pathlib.Path(f"{gateway.state}-after")
        self.after.mkdir()

    def states_along(self, source, chances, share):
        """Cuts the power after this share of the calls."""
        events = self.recorder.events
        disk = Disk(self.recorder.start, self.recorder.system_of)
        for position in range(len(events) + 1):
            if position in (0, len(events)) or source.random() < share:
                for chance in chances:
                    chosen = [number for number in disk.pending if source.random() < chance]
                    self.cut(disk.after_power_cut(chosen, source if 0 < chance < 1 else None), position)
            if position < len(events):
                disk.do(events[position])

    def cut(self, tree, position):
        self.states += 1
        has_said = self.lasts is not None and position >= self.lasts
        key = tree.key(), has_said
        if key in self.seen:
            return
        self.seen.add(key)
        tree.roots = {str(self.after): key for key in tree.roots.values()}
        write_tree(tree)
        self.hot += has_hot_journal(self.after)
        try:
            self.found[self.require_whole(has_said)] += 1
        except Exception as failure:
            place = f"after call {position} of {len(self.recorder.events)}"
            raise type(failure)(f"{place}: {failure}") from failure

    def require_whole(self, has_said):
        """0 if the old state is found, and 1 for the new one."""
        stored = require_stored(self.gateway, self.expected, () if self.is_removal else ["weekly"],
                                ["weekly"] if self.is_removal else (), state=self.after)
        if (self.after / "notes.db").is_dir():
            (self.after / "notes.db").rmdir()
        self.gateway.do("typed-verify", prefix=["env", f"KELMOR_DYNAMIC_DIR={self.after}"])
        is_new = "weekly" not in stored if self.is_removal else \
            stored["weekly"] == self.expected["weekly"][1]
        require(is_new or not has_said, "what was reported as done is lost")
        return is_new

    def has_seen_all(self):
        return self.hot > 0 and min(self.found) > 0

    def figures(self):
        require(self.hot > 0, "no state had a hot journal")
        require(min(self.found) > 0, "old and new were not both seen:", self.found)
        return (f"{len(self.recorder.events)} calls, {self.states} states of which {len(self.seen)} differ "
                f"and {self.hot} have a hot journal: {self.found[0]} before, {self.found[1]} after")


def campaign(program, full, source):
    figures = []
    for verb, notes, size, wanted, share in (
            ("save", True, 12000, 6000 if full else 25, 1.0 if full else 0.1),
            ("save", True, 300000, 300 if full else 2, 0.02 if full else 0.001),
            ("typed-save", True, 12000, 3000 if full else 20, 1.0 if full else 0.1),
            ("typed-save", False, 12000, 1500 if full else 15, 1.0 if full else 0.1),
            ("typed-remove", True, 12000, 3000 if full else 20, 1.0 if full else 0.1),
            ("typed-remove", False, 12000, 1500 if full else 15, 1.0 if full else 0.1)):
        with Gateway(program) as gateway:
            change = Change(gateway, verb, size, notes)
            change.states_along(source, (0.0, 1.0), share)
            while change.states < wanted or change.states < 20 * wanted and not change.has_seen_all():
                change.states_along(source, (source.choice([0.2, 0.5, 0.8, 0.95]),), share)
            without = "" if notes else " without notes"
            figures.append(f"{verb}{without}, {size * 12 // 1000} kB: {change.figures()}")
    return "; ".join(figures)


main(campaign)
