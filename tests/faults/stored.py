"""What a storage holds, to the library and to the program.

Both look at a copy, so that each is the first to open what a fault left.
"""

import json
import pathlib
import shutil
import sqlite3
import subprocess
import tempfile

from gateway import files, require, shortened


def look(state):
    """With SQLite alone, after somebody else has opened it."""
    connection = sqlite3.connect(state / "storage.db")
    try:
        require(connection.execute("pragma integrity_check").fetchall() == [("ok",)],
                "the database is damaged")
    finally:
        connection.close()


def found_by_library(gateway, *names, state=None):
    """Each row's name and version, with its files, or with the reason why it does not load."""
    if gateway.inspector is None:
        gateway.inspector = subprocess.Popen([gateway.program, "inspect"], env=gateway.environment(),
                                             text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    with tempfile.TemporaryDirectory(dir=gateway.root) as place:
        place = pathlib.Path(place)
        shutil.copytree(state or gateway.state, place / "state")
        gateway.inspector.stdin.write(" ".join([f"{place}/state", str(place), *names]) + "\n")
        gateway.inspector.stdin.flush()
        found = {}
        while (line := gateway.inspector.stdout.readline().rstrip("\n"))[:1] != ".":
            require(line, "the library died of the storage")
            name, version, _, outcome = line.split("\t")
            loaded = place / f"{name}-{version}"
            found[name, int(version)] = files(loaded) if outcome == "done" else outcome
        require(line == ".", "after loading,", line)
        require(not list(gateway.temp.iterdir()), "the library left a temporary file")
        look(place / "state")
    return found


def found_by_program(gateway, *names, state=None):
    """The same for `confsave list`, and `confsave load` for the names."""
    with tempfile.TemporaryDirectory(dir=gateway.root) as place:
        place = pathlib.Path(place)
        shutil.copytree(state or gateway.state, place / "state")
        environment = {**gateway.environment(), "KELMOR_DYNAMIC_DIR": f"{place}/state"}

        def confsave(*words):
            return subprocess.run([gateway.confsave, *words], env=environment, stdin=subprocess.DEVNULL,
                                  capture_output=True, text=True, timeout=60, check=False)

        listing = confsave("list", "--all", "--json")
        require(listing.returncode == 0, "confsave list:", listing.returncode, listing.stderr)
        rows = [(row["name"], row["version"]) for row in json.loads(listing.stdout)]
        found = {row: "listed" for row in rows}
        for name in names:
            target = place / name
            target.mkdir()
            load = confsave("load", name, "--yes", "--target", str(target))
            for row in rows:
                if row[0] == name:
                    found[row] = files(target) if load.returncode == 0 else load.stderr
        look(place / "state")
    return found


def require_stored(gateway, expected, names=(), may_be_missing=(), state=None):
    """First the library and then the program find the rows, whole, and no others.

    `expected` has the contents that each name may have; a name that ends in "*" stands for all that
    begin so and need not be there. The library loads all rows, the program `names`. Returns what the
    library found.
    """
    rows = found_by_library(gateway, state=state)
    for who, found in (("library", rows), ("program", found_by_program(gateway, *names, state=state))):
        stored = {name: contents for (name, _), contents in found.items()}
        for name, contents in stored.items():
            patterns = [p for p in expected if p == name or p[-1] == "*" and name.startswith(p[:-1])]
            require(patterns, "the", who, "finds a row that nobody stored:", name)
            require(contents == "listed" or contents in expected[patterns[0]],
                    "the", who, "does not find", name, "whole:", shortened(contents))
        missing = [name for name in expected
                   if name not in stored and name not in may_be_missing and name[-1] != "*"]
        require(not missing, "lost to the", who + ":", missing)
    require([contents != "listed" for contents in found.values()].count(True) == len(names) or
            any(name in may_be_missing for name in names), "the program loaded too few")
    return {name: contents for (name, _), contents in rows.items()}
