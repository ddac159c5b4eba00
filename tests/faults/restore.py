#!/usr/bin/env python3
"""Breaks a restore in every place.

    restore.py OPERATE [--full] [--seed=N]

It ends in the stated failure, leaves no scratch directory where rm worked, and no file of the configuration
is gone that was there, except those of the configuration database. Every row stays as it was, except its
stamp, and loads afterwards.
"""

from gateway import Gateway, main, require
from stored import found_by_library, found_by_program

ROWS = "select name, version, keybase, etc, type, save_time from Config order by name, version"


def strace(gateway, *injection):
    return ["strace", "-f", "-qq", "-o", str(gateway.root / "trace"), "-e", "trace=linkat,unlinkat",
            "-e", "inject=" + ":".join(injection)]


def strike(gateway, expected, *, rm_works=True, **options):
    """A load under some fault, whose outcome must be one of those expected."""
    before = gateway.configuration()
    status, output = gateway.run("load", "weekly", **options)
    require(output in expected, options, "ended with", status, output)
    after = gateway.configuration()
    gone = [name for name in before if name not in after and "/config." not in name]
    require(not gone, options, "lost", gone)
    for name, contents in after.items():
        whole = {before.get(name), gateway.stored.get(name)}
        require(contents in whole, options, name, "is neither the old nor the stored one")
    if rm_works:
        require(not gateway.scratch_directories(), options, "left", gateway.scratch_directories())
    gateway.require_integrity()
    require(gateway.query(ROWS) == gateway.rows, options, "the rows are others now")
    gateway.restore_state()
    gateway.remove_scratch_directories()
    gateway.write_configuration("new", 300)
    return output


DONE = "done\n"
EXTERNAL = "status 36 \n"


def byte_limits(gateway, full, source):
    largest = max(len(contents) for contents in gateway.stored.values())
    limits = range(largest + 1) if full else source.sample(range(largest), 12)
    for limit in limits:
        strike(gateway, [EXTERNAL] if limit < largest else [DONE], FSIZE=limit, COMMAND="tar ")
    strike(gateway, [DONE], FSIZE=largest, COMMAND="tar ")
    return len(limits) + 1


def temporary_files(gateway, full, source):
    """The archives on their way out of the table."""
    largest = max(gateway.query("select max(length(keybase), length(etc)) from Config"))[0]
    limits = range(0, largest, 1 if full else 400)
    for limit in limits:
        strike(gateway, ["status 6 Success\n", "status 6 File too large\n"],
               prefix=["prlimit", f"--fsize={limit}"])
    return len(limits)


def links(gateway, full, source):
    count = 0
    for error in ("EPERM", "EXDEV"):
        strike(gateway, [EXTERNAL], prefix=strace(gateway, "linkat", f"error={error}"))
        count += 1
    for number in range(1, 30 if full else 4):
        outcome = strike(gateway, [EXTERNAL, DONE],
                         prefix=strace(gateway, "linkat", "signal=SIGKILL", f"when={number}"))
        count += 1
        if outcome == DONE:
            break
    else:
        require(not full, "cp has no end")
    return count


def still_loads(gateway):
    """After a restore that failed, by the library and by the program."""
    gateway.run("load", "weekly", FSIZE=100, COMMAND="tar ")
    gateway.remove_scratch_directories()
    expected = gateway.expected_files("old", 300)
    for found in (found_by_library(gateway), found_by_program(gateway, "weekly")):
        require(list(found.values()) == [expected], "does not load after a failed restore")
    gateway.restore_state()
    gateway.write_configuration("new", 300)


def campaign(program, full, source):
    with Gateway(program) as gateway:
        gateway.write_configuration("old", 300)
        gateway.stored = gateway.configuration()
        gateway.do("save", "weekly")
        gateway.keep_state()
        gateway.rows = gateway.query(ROWS)
        gateway.write_configuration("new", 300)
        limits = byte_limits(gateway, full, source)
        writes = temporary_files(gateway, full, source)
        linked = links(gateway, full, source)
        still_loads(gateway)
        strike(gateway, [EXTERNAL], rm_works=False, prefix=strace(gateway, "unlinkat", "error=EBUSY"))
    return f"{limits} byte limits, {writes} of the archives, {linked} links refused or killed, rm refused"


main(campaign)
