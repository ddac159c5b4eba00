"""What a run is measured against: the aims, met or missed, and the programs that are ahead of ConfSave."""

import beside
import listing

SIZES = ("200 KiB", "5 MiB", "50 MiB")
PEERS = ("by hand", "tar", "tar + sync", "git", "restic", "borg")
MIXTURE = "leaves a mixture of files after a failure or a power cut"
PARTS = "It stores only what is new, and proves nothing."
# Why a program may be ahead, by what is measured.
REASONS = {
    "save": {
        "by hand": "It proves nothing.",
        "tar": "It proves nothing and syncs nothing.",
        "tar + sync": "It writes one file, without a transaction, and proves nothing.",
        "git": "It reads and stores only files whose size or times have changed, and proves nothing.",
        "restic": PARTS, "borg": PARTS},
    "restore": {
        "by hand": f"It syncs nothing, and {MIXTURE}.",
        "tar": f"It syncs nothing, and {MIXTURE}.",
        "tar + sync": f"It syncs once, at the end, and {MIXTURE}.",
        "git": f"It syncs no file, and {MIXTURE}. It takes files for unchanged by their size and times.",
        "restic": f"It syncs nothing, and {MIXTURE}.",
        "borg": f"It syncs nothing, and {MIXTURE}."},
    "compare": dict.fromkeys(("tar", "git"), "It starts with fewer libraries."),
    "verify": {
        "tar": "It decodes the archive, and computes no digest.",
        "git": "It starts with fewer libraries.",
        "restic": "It reads its store in several threads.",
        "borg": "Its store is compressed less, and faster to decode."},
    "list": {
        "by hand": "`sqlite3` starts with fewer libraries, and prints times as numbers.",
        "git": "Its log is in one file, next to nothing else; it starts with fewer libraries.",
        **dict.fromkeys(("restic", "borg"), "It keeps its list in files of its own.")}}
TABLES = {beside.SAVES[0]: "save", beside.SAVES[1]: "save", beside.UNCHANGED: "save",
          **dict.fromkeys((beside.DAMAGED, beside.FIRST, beside.EQUAL, beside.EMPTY), "restore"),
          beside.DIFF: "compare", beside.VERIFY: "verify",
          listing.BY_NUMBER[False]: "list", listing.BY_NUMBER[True]: "list"}


def digits(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def ahead(results):
    """A row for each program that is faster than ConfSave somewhere."""
    found = {}
    for title, task in TABLES.items():
        rows = results["tables"].get(title, {"rows": {}})["rows"]
        for peer in PEERS:
            factors = [f"{ways['confsave']['median'] / ways[peer]['median']:.2f} at {label}"
                       for label, ways in rows.items()
                       if peer in ways and ways[peer]["median"] < ways["confsave"]["median"]]
            if factors:
                found.setdefault((task, peer), []).append(f"{title}: {', '.join(factors)}")
    return ["| program | ConfSave takes so many times as long | why |", "|---|---|---|",
            *(f"| {peer} | {'; '.join(where)} | {REASONS[task][peer]} |"
              for (task, peer), where in found.items())]


class Aims:
    """A row for each aim: the limit, and what was measured at each size."""

    def __init__(self, results):
        self.results = results
        self.lines = [f"| aim | limit | {' | '.join(SIZES)} |", "|---" * (len(SIZES) + 2) + "|"]
        self.saves()
        self.restores()
        self.readers()

    def ratio(self, title, label, way, base):
        ways = self.results["tables"].get(title, {"rows": {}})["rows"].get(label, {})
        return ways[way]["median"] / ways[base]["median"] if way in ways and base in ways else None

    def judge(self, value, limit, at_least=False):
        if value is None or limit is None:
            return ""
        met = value >= limit if at_least else value <= limit
        return f"{digits(value)} {'met' if met else '**missed**'}"

    def add(self, text, unit, cells, at_least=False):
        """cells: (value, limit) for each size; the limit None where there is no aim."""
        limits = dict.fromkeys(f"{limit:g}" for _, limit in cells if limit is not None)
        judged = [self.judge(value, limit, at_least) for value, limit in cells]
        if any(judged):
            limit = f"{'≥' if at_least else '≤'} {', '.join(limits)} {unit}".strip()
            self.lines.append(f"| {text} | {limit} | {' | '.join(judged)} |")

    def add_ratio(self, text, title, way, base, limits):
        self.add(text, "", [(self.ratio(title, label, way, base), limit)
                            for label, limit in zip(SIZES, limits)])

    def figure(self, label):
        return self.results["figures"].get(label, {"value": None})["value"]

    def restores(self):
        self.add_ratio("restore: of `tar xzf`", beside.DAMAGED, "confsave", "tar", [0.7] * 3)
        for base in ("contract library", "contract library, gzip"):
            self.add_ratio(f"restore: of a load by the {base}", beside.DAMAGED, "confsave", base,
                           [0.35] * 3)
        self.add_ratio("restore, nothing differs: of `tar xzf`", beside.EQUAL, "confsave", "tar", [0.5] * 3)

    def saves(self):
        later = beside.SAVES[1]
        self.add_ratio("save with proof: of `tar czf` with sync", later, "confsave", "tar + sync",
                       [None, 0.5, None])
        for base in ("contract library", "contract library, gzip"):
            self.add_ratio(f"save with proof: of a save by the {base}", later, "confsave", base,
                           [1.5, 1.35, None])
        self.add_ratio("save if changed, nothing changed: of git's", beside.UNCHANGED, "confsave", "git",
                       [0.7] * 3)
        for verb, title, least in (("save", later, 0.7), ("load", beside.DAMAGED, 0.95)):
            self.add_ratio(f"the contract library's {verb}: of the work by hand", title, "contract library",
                           "by hand", [least, 1, 1])

    def readers(self):
        cell = self.results["tables"][beside.DIFF_INSIDE]["rows"]["5 MiB"]["with manifest"]
        self.add("comparison with a manifest", "ms",
                 [(None, None), (cell["median"] * 1000, 10), (None, None)])
        self.add_ratio("comparison without: of decoding and reading", beside.DIFF_INSIDE, "no manifest",
                       "decode and read", [None, 1.2, None])
        self.add("verify, unpacked data", "MB/s", [(None, None), *(
            (self.figure(f"verify {label}"), 200) for label in SIZES[1:])], at_least=True)
        value = self.ratio(listing.BY_SIZE[False], "1,000 × 1024 KiB", "contract library", "default layout")
        self.add("list of 1,000 snapshots of 1 MiB: of the default layout", "",
                 [(None, None), (None, None), (value, 0.06)])
        for verb in ("show", "diff", "verify", "restore", "save"):
            limit = 16 + (2 * self.figure("archives of 50 MiB") if verb == "save" else 0)
            self.add(f"memory of {verb}", "MiB", [(None, None), (None, None), (
                self.figure(f"peak memory of {verb} beyond an opened storage"), round(limit, 1))])
