"""Measures the second library: beside the first, beside git, and beside the work that it cannot avoid."""

import functools
import json
import shutil
import statistics
import subprocess
import time

from measuring import ETC, SIZES, note, quartiles, rounds_for, show, turn_about


class Typed:
    """The host of the second library, on the gateway of a Bench."""

    def __init__(self, bench, build):
        self.bench = bench
        self.host = str(build / "bench/bench-typed")

    def run(self, *words):
        return self.bench.run(self.host, *words)

    def figures(self, *words):
        files = self.bench.root / "names"
        live = [path for root in (self.bench.root / "config", ETC) for path in root.rglob("*")]
        files.write_text("".join(f"{path}\n" for path in live if path.is_file()))
        out = self.bench.root / "figures"
        self.bench.run(self.host, *words, BENCH_FIGURES=str(out), BENCH_FILES=str(files))
        return json.loads(out.read_text())

    def seconds(self, *words):
        return self.figures(*words)["all"]

    def save_later(self):
        """Files that changed just before a save are read again by each comparison."""
        self.bench.clear("state")
        time.sleep(3)
        self.run("save", "weekly")

    def forget_notes(self):
        for path in (self.bench.root / "state").glob("notes.db*"):
            path.unlink()


def saves(typed, rounds):
    bench, rows = typed.bench, {}
    for label, size in SIZES.items():
        bench.make_configuration(size)
        bench.clear("state")
        rows[label] = turn_about(rounds_for(rounds, size), {
            "confsave": lambda: bench.run(bench.host, "save", "weekly"),
            "with proof": lambda: typed.run("save", "weekly")})
    show("save with proof, over a row", rows, "confsave")


def git_ways(bench):
    shutil.rmtree(bench.root / "git", ignore_errors=True)
    bench.run("git", "init", "-q", bench.root / "git", HOME=str(bench.root))
    git = ["git", f"--git-dir={bench.root}/git/.git", f"--work-tree={bench.root}/config", "-c",
           "user.name=x", "-c", "user.email=x@example.com", "-c", "core.fsync=all"]
    run = functools.partial(bench.run, HOME=str(bench.root))
    return {"git": lambda: (run(*git, "add", "-A") +
                            run(*git, "commit", "-q", "--allow-empty", "-m", "x"))}


def saves_if_changed(typed, rounds):
    """A whole process, its start included."""
    bench, rows = typed.bench, {}
    for label, size in SIZES.items():
        bench.make_configuration(size)
        typed.save_later()
        rows[label] = turn_about(rounds_for(rounds, size), {
            **git_ways(bench),
            "confsave": lambda: typed.run("save-if-changed", "weekly")})
    show("save if changed, nothing changed", rows, "git")


def comparisons(typed, rounds):
    """Within the process: the start and the end are not the library's."""
    rows = {}
    for label, size in SIZES.items():
        typed.bench.make_configuration(size)
        typed.save_later()
        count = rounds_for(rounds, size)
        with_manifest = [typed.seconds("diff", "weekly") for _ in range(count)]
        typed.forget_notes()
        ways = turn_about(count, {"decode and read": lambda: typed.seconds("decode", "weekly"),
                                  "without manifest": lambda: typed.seconds("diff", "weekly")})
        rows[label] = {**ways, "with manifest": quartiles(with_manifest)}
        note(f"diff of {label}, unchanged, with a manifest",
             f"{statistics.median(with_manifest) * 1000:.1f} ms")
    show("diff, nothing changed", rows, "decode and read")


def verifications(typed, rounds):
    typed.bench.make_configuration(SIZES["50 MiB"])
    typed.bench.clear("state")
    typed.run("save", "weekly")
    figures = [typed.figures("verify", "weekly") for _ in range(rounds)]
    seconds = statistics.median(f["all"] for f in figures)
    note("verify of 50 MiB", f"{figures[0]['bytes'] / seconds / 1e6:,.0f} MB of unpacked data a second")


def make_packed(bench):
    """The archives of the snapshot as files, and a way to unpack them over the live files."""
    run = functools.partial(bench.run, "sqlite3", bench.root / "state/storage.db")
    run(f"select writefile('{bench.root}/k', keybase), writefile('{bench.root}/e', etc) from Config")
    k, e = bench.root / "k", bench.root / "e"
    return lambda: (bench.run("tar", "xzf", k, "-C", bench.root / "config") +
                    bench.run("tar", "xzf", e, "-C", ETC))


def settle(bench):
    """A restore syncs, and must not pay for what others have written."""
    subprocess.run(["sync", "--file-system", bench.root], check=True)


def damage_one_in_ten(bench):
    for name in bench.files[::10]:
        path = bench.root / "config" / name
        path.write_bytes(path.read_bytes().swapcase() + b"damaged\n")
    settle(bench)


def restores(typed, rounds):
    """Whole processes, their start included. tar takes the place of the files, and does nothing else."""
    bench = typed.bench
    damaged, equal = {}, {}
    for label, size in SIZES.items():
        bench.make_configuration(size)
        typed.save_later()
        tar = make_packed(bench)
        damaged[label] = turn_about(rounds_for(rounds, size), {
            "tar": tar,
            "confsave": lambda: bench.run(bench.host, "load", "weekly"),
            "restore": lambda: typed.run("restore", "weekly"),
            "restore and keep": lambda: typed.run("restore-and-keep", "weekly")},
            lambda: damage_one_in_ten(bench))
        bench.run(bench.host, "load", "weekly")
        equal[label] = turn_about(rounds_for(rounds, size), {
            "tar": tar, "restore": lambda: typed.run("restore", "weekly")},
            lambda: settle(bench))
    show("restore, one file in ten damaged", damaged, "tar")
    show("restore, nothing differs", equal, "tar")


def memory(typed):
    """Beyond a process that only opens the storage."""
    grown = {}
    for label in ("200 KiB", "50 MiB"):
        typed.bench.make_configuration(SIZES[label])
        typed.bench.clear("state")
        typed.run("save", "weekly")
        opened = typed.figures("open")["peak"]
        for verb in ("show", "diff", "verify", "restore", "save"):
            typed.forget_notes()
            damage_one_in_ten(typed.bench)
            grown.setdefault(verb, []).append((typed.figures(verb, "weekly")["peak"] - opened) / 1024)
    for verb, (small, large) in grown.items():
        note(f"peak memory of {verb} beyond an opened storage",
             f"{small:.1f} MiB at 200 KiB, {large:.1f} MiB at 50 MiB")
    packed = sum(path.stat().st_size for path in (typed.bench.root / "state").glob("storage.db"))
    note("storage of 50 MiB, packed", f"{packed / (1 << 20):.1f} MiB")


def measure(bench, build, rounds):
    typed = Typed(bench, build)
    saves(typed, rounds)
    saves_if_changed(typed, rounds)
    comparisons(typed, rounds)
    verifications(typed, rounds)
    restores(typed, rounds)
    memory(typed)
