"""Turns the results of a run into sections of pages: tables, aims, pictures."""

import statistics

from aims import Aims, ahead, digits

PICTURES = (("save", "Time of a save, one file changed"),
            ("restore", "Time of a restore, one file in ten damaged"),
            ("list", "Time of a list of snapshots"), ("nights", "Store after a month of nightly saves"))


def made(results):
    machine = results["machine"]
    return f"Made on {machine['date']} on {machine['cores']} cores, {machine['processor']}."


def spread(cell):
    """Half of the distance of the quartiles, of the median."""
    return (cell["high"] - cell["low"]) / 2 / cell["median"]


def steadiness(results):
    found = sorted((spread(cell), f"{way}, {title}, {label}") for title, table in results["tables"].items()
                   for label, ways in table["rows"].items() for way, cell in ways.items())
    tenth = statistics.quantiles([value for value, _ in found], n=10)
    return (f"The quartiles lie at most {tenth[4]:.0%} from the median in half of the measurements, "
            f"{tenth[8]:.0%} in nine of ten, and {found[-1][0]:.0%} in the worst ({found[-1][1]}).")


def conditions(results):
    machine = results["machine"]
    versions = "; ".join(f"{name} {value}" for name, value in machine["versions"].items())
    return [made(results), "",
            f"{versions}. {machine['rounds']} Each configuration has {machine['files']} files. "
            f"The run took {machine['minutes']} minutes; load of the machine before it "
            f"{machine['load before']}, after it {machine['load after']}.", "", steadiness(results)]


def row(*cells):
    return f"| {' | '.join(cells)} |"


def heading(*cells):
    return [row(*cells), "|---" * len(cells) + "|"]


def cell_of(ways, name, base):
    if name not in ways:
        return ""
    low, middle, high = (digits(ways[name][key] * 1000) for key in ("low", "median", "high"))
    return f"{middle} ms ({low}–{high}) = {ways[name]['median'] / ways[base]['median']:.2f}"


def figures_section(results):
    """For docs/figures.md: all of it."""
    lines = [*conditions(results), "",
             "Each cell: the median, the quartiles, and the ratio to the way that has 1.00."]
    for title, table in results["tables"].items():
        names = dict.fromkeys(name for ways in table["rows"].values() for name in ways)
        lines += ["", *heading(title, *table["rows"])]
        lines += [row(name, *(cell_of(ways, name, table["base"]) for ways in table["rows"].values()))
                  for name in names]
    stores = results["stores"]
    lines += ["", *heading(stores["title"], *stores["rows"])]
    lines += [row(name, *(f"{sizes[name]:.1f}" for sizes in stores["rows"].values()))
              for name in next(iter(stores["rows"].values()))]
    lines += ["", *heading("figure", "")]
    return lines + [row(label, figure["text"]) for label, figure in results["figures"].items()]


def aims_section(results):
    """For docs/performance.md."""
    return [*conditions(results), "", *Aims(results).lines]


def pictures_section(results):
    return [made(results), ""] + [f"![{title}](performance/{name}.svg)\n" for name, title in PICTURES]


SECTIONS = {"bench": figures_section, "aims": aims_section, "pictures": pictures_section,
            "ahead": lambda results: [made(results), "", *ahead(results)]}
