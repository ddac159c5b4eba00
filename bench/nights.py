"""How large the stores are after a month of saves, one each night."""

from measuring import RESULTS, SIZES

TITLE = "store after {} nightly saves of 5 MiB, in MB"


def size_of(store):
    """On the disk."""
    return sum(path.lstat().st_blocks * 512 for path in [store, *store.rglob("*")])


class Month:
    def __init__(self, bench, peers, nights):
        self.bench, self.nights = bench, nights
        self.peers = [peer for peer in peers if peer.name != "tar + sync"]

    def saves(self):
        """Each way's name, what it does at night, and where it keeps it."""
        yield from ((peer.name, peer.save, peer.store) for peer in self.peers)
        for name, option in (("confsave", ()), ("confsave --if-changed", ("--if-changed",))):
            state = self.bench.root / name.replace(" ", "")
            self.bench.clear(state)
            yield name, lambda night, state=state, option=option: self.bench.run(
                self.bench.program, "save", f"night{night}", *option, KELMOR_DYNAMIC_DIR=str(state)), state

    def sizes(self, changes):
        """In MB, by way. In each night whose number `changes` accepts, a line is added to one file."""
        self.bench.make_configuration(SIZES["5 MiB"])
        for peer in self.peers:
            peer.new()
        saves = list(self.saves())
        for night in range(self.nights):
            if changes(night):
                self.bench.change_a_line()
            for _, save, _ in saves:
                save(str(night))
        found = {name: size_of(store) / 1e6 for name, _, store in saves}
        git = next(peer for peer in self.peers if peer.name == "git")
        git.git("gc", "-q")
        return {**found, "git, packed": size_of(git.store) / 1e6}


def measure(bench, peers, quick):
    nights = 3 if quick else 30
    month = Month(bench, peers, nights)
    rows = {"a line changes every third night": month.sizes(lambda night: night % 3 == 0),
            "a line changes every night": month.sizes(lambda night: True)}
    RESULTS["stores"] = {"title": TITLE.format(nights), "rows": rows}
    print(f"\n{TITLE.format(nights)}")
    for label, sizes in rows.items():
        for name, size in sizes.items():
            print(f"  {label}: {name:<24} {size:8.1f}", flush=True)
