"""Saves, restores, comparisons and verifications, each beside the other programs."""

import statistics

from measuring import note, quartiles, show

SAVES = ("save, first of a new storage", "save, one file changed")
UNCHANGED = "save if changed, nothing changed"
DAMAGED = "restore, one file in ten damaged"
FIRST = "restore, one file in ten damaged, first load of the snapshot"
EQUAL = "restore, nothing differs"
EMPTY = "restore into an empty directory"
DIFF = "compare with the live files, nothing changed"
DIFF_INSIDE = "the same, within the process"
VERIFY = "verify one snapshot"


def peers_do(peers, task, *arguments):
    return {peer.name: lambda peer=peer: getattr(peer, task)(*arguments)
            for peer in peers if getattr(peer, task, None)}


def new_stores(bench, peers, wait=0):
    """One snapshot in each."""
    for peer in peers:
        peer.new()
        peer.save()
    bench.save(wait)


def saves(bench, peers, turns):
    first, later, unchanged = {}, {}, {}
    by_name = {peer.name: peer for peer in peers}

    def change(name):
        bench.enter(f"state of {name}")
        bench.change_a_line()

    for label, size in turns.effort.sizes.items():
        bench.make_configuration(size)
        ways = {**bench.contract_ways("save", "weekly"),
                "confsave": bench.confsave("save", "weekly", "--force"), **peers_do(peers, "save")}
        first[label] = turns.take(ways, lambda name: by_name[name].new() if name in by_name
                                  else bench.clear(bench.state))
        later[label] = turns.take(ways, change)
        bench.enter("state")
        new_stores(bench, peers, wait=3)
        unchanged[label] = turns.take({"confsave": bench.confsave("save", "weekly", "--if-changed"),
                                       **peers_do([peer for peer in peers if peer.keeps_history], "save")})
    for title, rows in zip((*SAVES, UNCHANGED), (first, later, unchanged)):
        show(title, rows, "git" if rows is unchanged else "tar + sync")


def restores(bench, peers, turns):
    first, damaged, equal, empty = {}, {}, {}, {}
    load = "load", "weekly", "--yes"
    by_name = {peer.name: peer for peer in peers}

    def renew(name, damaged, never_loaded=False):
        bench.enter_copy(f"state of {name}", never_loaded)
        bench.renew()
        if name in by_name:
            by_name[name].know()
        if damaged:
            bench.damage()

    def clear_target(name):
        bench.enter_copy(f"state of {name}")
        bench.clear(bench.target)

    def check(name):
        bench.check_restored(name, bench.config)

    for label, size in turns.effort.sizes.items():
        bench.make_configuration(size)
        bench.leave_copies()
        new_stores(bench, peers)
        ways = {**bench.contract_ways("load", "weekly"),
                "confsave": bench.confsave(*load, "--no-keep"), "confsave, keep": bench.confsave(*load),
                **peers_do(peers, "restore", bench.config)}
        first[label] = turns.take({name: ways[name] for name in ("contract library", "confsave", "tar")},
                                  lambda name: renew(name, True, never_loaded=True), check)
        damaged[label] = turns.take(ways, lambda name: renew(name, True), check)
        del ways["by hand"], ways["contract library, gzip"], ways["confsave, keep"]
        equal[label] = turns.take(ways, lambda name: renew(name, False), check)
        empty[label] = turns.take(
            {**bench.contract_ways("load", "weekly", f"{bench.target}/"),
             "confsave": bench.confsave(*load, "--target", bench.target),
             **peers_do(peers, "restore", bench.target)},
            clear_target, lambda name: bench.check_restored(name, bench.target))
    bench.leave_copies()
    for title, rows in ((DAMAGED, damaged), (FIRST, first), (EQUAL, equal), (EMPTY, empty)):
        show(title, rows, "tar")


def forget_notes(bench):
    for path in bench.state.glob("notes.db*"):
        path.unlink()


def comparisons(bench, peers, turns):
    """Whole processes beside the other programs; within the process beside the work that has to be done."""
    whole, inside = {}, {}
    host = bench.typed_host
    for label, size in turns.effort.sizes.items():
        bench.make_configuration(size)
        new_stores(bench, peers, wait=3)
        known = turns.take({"confsave": bench.confsave("diff", "weekly"), **peers_do(peers, "compare")})
        with_manifest = quartiles([bench.figures(host, "diff", "weekly")["all"]
                                   for _ in range(turns.effort.most)])
        forget_notes(bench)
        unknown = turns.take({"confsave, no manifest": bench.confsave("diff", "weekly")})
        inside[label] = {**turns.take({
            "decode and read": lambda: bench.figures(host, "decode", "weekly")["all"],
            "no manifest": lambda: bench.figures(host, "diff", "weekly")["all"]}),
            "with manifest": with_manifest}
        whole[label] = {**known, **unknown}
    show(DIFF, whole, "tar")
    show(DIFF_INSIDE, inside, "decode and read")


def verifications(bench, peers, turns):
    rows, host = {}, bench.typed_host
    for label, size in turns.effort.sizes.items():
        bench.make_configuration(size)
        new_stores(bench, peers)
        rows[label] = turns.take({"confsave": bench.confsave("verify", "weekly"),
                                  **peers_do(peers, "verify")})
        figures = [bench.figures(host, "verify", "weekly") for _ in range(turns.effort.most)]
        rate = figures[0]["bytes"] / statistics.median(one["all"] for one in figures) / 1e6
        note(f"verify {label}", f"{rate:,.0f} MB of unpacked data a second", rate)
    show(VERIFY, rows, "tar")
