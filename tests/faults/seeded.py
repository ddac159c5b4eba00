#!/usr/bin/env python3
"""Tries the campaigns on deliberate bugs.

    seeded.py [--short] [BUG...]

Each tests/faults/seeded/BUG.patch is applied to a copy of the tree, alone; it is built, and the
campaigns that its first line names run in their short forms, one with ":full" behind it in full;
"snapshots-tests" are the tests of the typed library. Each must
fail. First all of these must pass without a bug. Prints a line for each bug, and the table bug x campaign.
--short: all patches apply, and the bugs of SHORT are noticed.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PROGRAMS = ["databases", "floor-memory", "memory", "snapshots-tests"]
SKIPPED, SHORT = 77, ["hot-journal-deleted", "fetch-out-of-memory", "failed-cp-ignored"]
TARGETS = ["operate", "inodes", "locker", "confsave-console", *PROGRAMS]


def copy_tree(target):
    names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, check=True,
                           capture_output=True, text=True).stdout.split()
    for name in names:
        if (ROOT / name).is_file():
            (target / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(ROOT / name, target / name)


def configure(tree):
    launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
    os.environ.update(CCACHE_BASEDIR=str(tree), CCACHE_NOHASHDIR="1")
    subprocess.run(["cmake", "-S", tree, "-B", tree / "build", "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                    *launcher], check=True, stdout=subprocess.DEVNULL)


def build(tree):
    result = subprocess.run(["cmake", "--build", tree / "build", "--target", *TARGETS], check=False,
                            capture_output=True, text=True)
    if result.returncode != 0:
        sys.exit(f"seeded: does not build:\n{result.stdout[-2000:]}")


def patch(tree, bug, *options):
    """Whether it applies."""
    with bug.open() as text:
        command = ["patch", "-p1", "--silent", "--force", *options]
        return subprocess.run(command, cwd=tree, stdin=text, check=False,
                              stdout=subprocess.DEVNULL).returncode == 0


def run(tree, campaign):
    """The status, and the last line of the output."""
    campaign, _, form = campaign.partition(":")
    if campaign in PROGRAMS:
        command = [tree / "build/tests" / campaign]
    else:
        command = [tree / f"tests/faults/{campaign}.py", tree / "build/tests/operate"]
    if form:
        command.append(f"--{form}")
    # One failed test is enough.
    result = subprocess.run([tree / "script/lib/sandbox", *command], check=False, text=True,
                            env={**os.environ, "GTEST_FAIL_FAST": "1"}, errors="replace",
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return result.returncode, (result.stdout.strip().split("\n") or [""])[-1]


def campaigns_of(bug):
    first = bug.read_text().split("\n")[0]
    if not first.startswith("Noticed by: "):
        sys.exit(f"seeded: {bug.name} does not say what notices it")
    return first.removeprefix("Noticed by: ").split()


def verdict(status):
    return "skipped" if status == SKIPPED else "passes" if status == 0 else "fails"


def try_bug(tree, bug):
    """Campaign and verdict; the tree is as before afterwards."""
    if not patch(tree, bug):
        sys.exit(f"seeded: {bug.name} does not apply: make it anew")
    build(tree)
    found = {}
    for campaign in campaigns_of(bug):
        status, line = run(tree, campaign)
        found[campaign] = verdict(status)
        print(f"{bug.stem}: {campaign} {found[campaign]}: {line[:200]}", flush=True)
    patch(tree, bug, "--reverse")
    return found


def print_table(found):
    campaigns = sorted({campaign for verdicts in found.values() for campaign in verdicts})
    words = {"fails": "noticed", "passes": "NOT NOTICED", "skipped": "skipped"}
    print("\n| Bug | " + " | ".join(campaigns) + " |\n|---|" + "---|" * len(campaigns))
    for bug, verdicts in found.items():
        cells = [words.get(verdicts.get(campaign), "") for campaign in campaigns]
        print(f"| {bug} | " + " | ".join(cells) + " |")


def main():
    short = "--short" in sys.argv
    names = [word for word in sys.argv[1:] if not word.startswith("--")]
    bugs = sorted((ROOT / "tests/faults/seeded").glob("*.patch"))
    if len(bugs) < 20:
        sys.exit(f"seeded: only {len(bugs)} bugs")
    chosen = [bug for bug in bugs if bug.stem in (names or (SHORT if short else [b.stem for b in bugs]))]
    with tempfile.TemporaryDirectory() as copy:
        tree = pathlib.Path(copy)
        copy_tree(tree)
        for bug in bugs:
            if not patch(tree, bug, "--dry-run"):
                sys.exit(f"seeded: {bug.name} does not apply: make it anew")
            campaigns_of(bug)
        configure(tree)
        build(tree)
        named = {campaign.split(":")[0] for bug in chosen for campaign in campaigns_of(bug)}
        for campaign in sorted(named):
            status, line = run(tree, campaign)
            if status not in (0, SKIPPED):
                sys.exit(f"seeded: {campaign} fails without a bug: {line}")
        found = {bug.stem: try_bug(tree, bug) for bug in chosen}
    print_table(found)
    missed = [bug for bug, verdicts in found.items() if "passes" in verdicts.values()]
    print(f"{len(bugs)} bugs apply, {len(found)} tried, {len(found) - len(missed)} noticed")
    sys.exit(bool(missed))


main()
