"""Lists of snapshots: by number beside other programs, and by size in both layouts of the file."""

import functools
import os
import shutil
import sqlite3
import time

from measuring import note, show

BY_NUMBER = {False: "list, snapshots of 50 KiB", True: "list, snapshots of 50 KiB, cold"}
BY_SIZE = {False: "list, by size", True: "list, by size, cold"}
LAYOUT = "write 1 MiB, by layout"
CACHES = "/proc/sys/vm/drop_caches"


def as_it_is(name):
    pass


def chill(stores, name):
    """Empties the caches of the machine, programs and libraries included, or only those of the stores."""
    os.sync()
    if os.access(CACHES, os.W_OK):
        with open(CACHES, "w", encoding="ascii") as caches:
            caches.write("3\n")
        return
    for path in (path for store in stores for path in store.rglob("*") if path.is_file()):
        descriptor = os.open(path, os.O_RDONLY)
        os.posix_fadvise(descriptor, 0, 0, os.POSIX_FADV_DONTNEED)
        os.close(descriptor)


def how_cold():
    return "what this machine has cached" if os.access(CACHES, os.W_OK) else "what is cached of the stores"


def to_default_layout(file):
    """The same rows in the layout that SQLite chooses by default."""
    connection = sqlite3.connect(file, isolation_level=None)
    connection.execute("pragma page_size=4096")
    connection.execute("pragma auto_vacuum=none")
    connection.execute("vacuum")
    connection.close()


def make_both(bench, count, kibibytes):
    """The state directory, and one whose storage has the default layout."""
    bench.fill(count, kibibytes)
    other = bench.root / "default"
    bench.clear(other)
    shutil.copy(bench.state / "storage.db", other / "storage.db")
    to_default_layout(other / "storage.db")
    return other


def by_number(bench, peers, turns, quick):
    """restic and borg make a snapshot in half a second: they are measured up to a hundred."""
    rows = {False: {}, True: {}}
    states = {"contract library": bench.state, "contract library, default layout": bench.root / "default"}
    histories = [peer for peer in peers if peer.keeps_history]
    bench.make_configuration(10 << 10)
    for peer in histories:
        peer.new()
    made = 0
    for count in (10, 100) if quick else (10, 100, 1000, 10000):
        make_both(bench, count, 50)
        ways = {"by hand": bench.contract_ways("list")["by hand"], "confsave": bench.confsave("list"),
                **{name: functools.partial(bench.run, bench.host, "list", KELMOR_DYNAMIC_DIR=str(state))
                   for name, state in states.items()}}
        for peer in histories:
            if peer.name == "git":
                peer.fill(count)
            elif count <= (10 if quick else 100):
                for _ in range(made, count):
                    peer.save()
            else:
                continue
            ways[peer.name] = peer.list
        made = max(made, count)
        for cold, table in rows.items():
            stores = [*states.values(), *(peer.store for peer in histories)]
            table[f"{count:,}"] = turns.take(ways, functools.partial(chill, stores) if cold else as_it_is)
    for cold, title in BY_NUMBER.items():
        show(title, rows[cold], "by hand")
    note("before each cold list", f"{how_cold()} is dropped")


def by_size(bench, turns, quick):
    """Within the process: the start and the end are not the library's."""
    rows, count = {False: {}, True: {}}, 200 if quick else 1000
    for kibibytes in (64, 1024) if quick else (1, 64, 256, 1024):
        states = {"contract library": bench.state, "default layout": make_both(bench, count, kibibytes)}
        ways = {name: functools.partial(bench.figures, bench.host, "list", KELMOR_DYNAMIC_DIR=str(state))
                for name, state in states.items()}
        ours, default = ways["contract library"](), ways["default layout"]()
        label = f"{count:,} × {kibibytes} KiB"
        note(f"bytes read to list {label}", f"{ours['read']:,}; {default['read']:,} in the default layout")
        seconds = {name: lambda way=way: way()["all"] for name, way in ways.items()}
        for cold, table in rows.items():
            stores = states.values()
            table[label] = turns.take(seconds, functools.partial(chill, stores) if cold else as_it_is)
    shutil.rmtree(bench.root / "default")
    for cold, title in BY_SIZE.items():
        show(title, rows[cold], "default layout")


def layout_cost(bench, turns):
    """What the layout costs where rows are written."""
    statements = {"insert": "insert into Config (name, version, keybase) "
                            "values (hex(randomblob(8)), 1, zeroblob(1048576))",
                  "overwrite": "begin; delete from Config where id=5; "
                               "insert into Config (id, name, version, keybase) "
                               "values (5, 'x', 1, randomblob(1048576)); commit",
                  "delete": "delete from Config where id=(select max(id) from Config)"}
    other = make_both(bench, 100, 1024)
    connections = {name: sqlite3.connect(directory / "storage.db", isolation_level=None)
                   for name, directory in (("default layout", other), ("contract library", bench.state))}

    def timed(connection, sql):
        start = time.perf_counter()
        connection.executescript(sql)
        return time.perf_counter() - start

    show(LAYOUT, {label: turns.take({name: functools.partial(timed, connection, sql)
                                     for name, connection in connections.items()})
                  for label, sql in statements.items()}, "default layout")
    for connection in connections.values():
        connection.close()
