#!/usr/bin/env python3
"""Writes the sections and draws the pictures of a run.

    draw.py RESULTS OUT

Writes OUT/NAME.md for each section of a page, and OUT/NAME.svg for each picture. Run by script/bench.
"""

import json
import math
import pathlib
import re
import subprocess
import sys

import beside
import listing
import page

# name: words beside the line, colours on light and on dark, symbol, dash. For all kinds of sight.
LOOKS = {
    "confsave": ("ConfSave", "#0063A6", "#58A6FF", 7, 1),
    "confsave, keep": ("ConfSave, keeps present", "#0063A6", "#58A6FF", 6, 2),
    "contract library": ("contract library", "#00838F", "#4DD0E1", 5, 1),
    "contract library, default layout": ("default layout of SQLite", "#00838F", "#4DD0E1", 4, 2),
    "by hand": ("shell script", "#6E6E6E", "#A8A8A8", 2, 3),
    "tar": ("tar", "#24292F", "#E6EDF3", 8, 3),
    "tar + sync": ("tar, synced", "#24292F", "#E6EDF3", 9, 1),
    "git": ("git", "#C04A00", "#FF8C42", 11, 1),
    "restic": ("restic", "#1B7F3B", "#56D364", 13, 1),
    "borg": ("borg", "#B0297E", "#F778BA", 15, 1)}
PAPER, INK, GRID = ("#FFFFFF", "#0D1117"), ("#24292E", "#E6EDF2"), ("#D0D7DE", "#30363D")
WIDTH, HEIGHT, MARGIN = 900, 480, 220
GAP = 0.052  # of the height of the plot, from label to label


def gnuplot(script):
    return subprocess.run(["gnuplot"], input=script, capture_output=True, text=True, check=True).stdout


def follow_the_scheme(svg, title):
    """The same picture in the colours of a dark page, where the reader prefers them."""
    def hexadecimal(found):
        return "%s#%02X%02X%02X%s" % (found[1], *(int(number) for number in found.groups()[1:4]), found[5])
    svg = re.sub(r"""(["'])rgb\( *(\d+), *(\d+), *(\d+)\)(["'])""", hexadecimal, svg)
    svg = re.sub(r"#[0-9a-f]{6}\b", lambda found: found[0].upper(), svg)
    pairs = dict([PAPER, INK, GRID] + [look[1:3] for look in LOOKS.values()])
    rules = "\n".join(f'[{what}="{light}"] {{ {what}: {dark}; }}' for light, dark in pairs.items()
                      for what in ("fill", "stroke", "color"))
    style = f"<style>\n@media (prefers-color-scheme: dark) {{\n{rules}\n}}\n</style>"
    svg = re.sub(r"<title>.*?</title>\s*<desc>.*?</desc>", f"<title>{title}</title>\n{style}", svg,
                 flags=re.DOTALL)
    svg = re.sub(r"font-family=\"[^\"]*\"", 'font-family="Helvetica, Arial, sans-serif"', svg)
    return "\n".join(line.rstrip() for line in svg.splitlines()) + "\n"


def frame(title, left=90, right=MARGIN):
    return f"""set terminal svg size {WIDTH},{HEIGHT} font 'Arial,15' background rgb '{PAPER[0]}' noenhanced
set title '{title}' tc rgb '{INK[0]}'
set border 3 lc rgb '{INK[0]}'
set grid lt 1 lc rgb '{GRID[0]}'
set tics nomirror tc rgb '{INK[0]}'
set lmargin at screen {left / WIDTH}
set rmargin at screen {1 - right / WIDTH}
set tmargin at screen {1 - 50 / HEIGHT}
set bmargin at screen {70 / HEIGHT}
"""


def spaced(heights):
    """Moves labels apart: name -> height, 0 to 1."""
    order = sorted(heights, key=heights.get)
    placed = {}
    for _ in range(100):
        for low, high in zip(order, order[1:]):
            lack = GAP - (heights[high] - heights[low])
            if lack > 1e-9:
                heights[low] -= lack / 2
                heights[high] += lack / 2
    for name in order:
        placed[name] = heights[name]
    return placed


def steps(low, high):
    """1, 2, 5, 10, 20 ... around the values."""
    marks = [factor * 10 ** power for power in range(-2, 7) for factor in (1, 2, 5)]
    first = max(index for index, mark in enumerate(marks) if mark <= low)
    last = min(index for index, mark in enumerate(marks) if mark >= high)
    return marks[first:last + 1]


def words_of(milliseconds):
    return f"{milliseconds / 1000:g} s" if milliseconds >= 1000 else f"{milliseconds:g} ms"


def lines(title, rows, places, names, x_title):
    """Time against `places`, both in steps of a factor; what is drawn are medians and quartiles."""
    names = [name for name in names if any(name in ways for ways in rows.values())]
    data = {name: [(places[label], *(ways[name][key] * 1000 for key in ("median", "low", "high")))
                   for label, ways in rows.items() if name in ways] for name in names}
    values = [value for points in data.values() for point in points for value in point[1:]]
    marks = steps(min(values), max(values))
    least, most = min(places.values()) / 1.3, max(places.values())
    script = frame(f"{title}: medians and quartiles")
    script += f"set logscale xy\nset xrange [{least}:{most}]\n"
    script += f"set yrange [{marks[0]}:{marks[-1]}]\n"
    script += f"set xlabel '{x_title}; both scales are logarithmic' tc rgb '{INK[0]}'\n"
    script += "set ytics (" + ", ".join(f"'{words_of(mark)}' {mark}" for mark in marks) + ")\n"
    script += "set xtics (" + ", ".join(f"'{label}' {place}" for label, place in places.items()) + ")\n"
    ends = {}
    for name, points in data.items():
        place, value = points[-1][:2]
        ends.setdefault(place, {})[name] = math.log(value / marks[0], marks[-1] / marks[0])
    for place, heights in ends.items():
        right = math.log(place / least, most / least) + 0.025
        for name, height in spaced(heights).items():
            text, colour, _, symbol, _ = LOOKS[name]
            script += (f"set label '{text}' at graph {right:.4f}, graph {height:.4f} left offset 0.8,-0.15 "
                       f"tc rgb '{colour}' point pt {symbol} ps 0.8 lc rgb '{colour}'\n")
    plots = []
    for number, name in enumerate(names):
        _, colour, _, symbol, dash = LOOKS[name]
        points = "\n".join(" ".join(map(str, point)) for point in data[name])
        script += f"$d{number} << EOD\n{points}\nEOD\n"
        plots += [f"$d{number} with lines lw 2 dt {dash} lc rgb '{colour}' notitle",
                  f"$d{number} with yerrorbars lw 1.5 pt {symbol} ps 0.8 lc rgb '{colour}' notitle"]
    return follow_the_scheme(gnuplot(script + "plot " + ", ".join(plots) + "\n"), title)


def bars(title, rows, names):
    """From zero: one bar for each way and row."""
    looks = (LOOKS["confsave"][1], LOOKS["git"][1])
    most = max(max(ways.values()) for ways in rows.values())
    script = frame(title, left=210, right=60)
    script += f"set xrange [0:{most * 1.1}]\nset yrange [-0.6:{len(names) - 0.4 + 0.9}]\nset grid noytics\n"
    script += f"set xlabel 'MB on the disk' tc rgb '{INK[0]}'\nset style fill solid 1 noborder\n"
    script += "set ytics (" + ", ".join(f"'{name}' {len(names) - 1 - number}"
                                        for number, name in enumerate(names)) + ") scale 0\n"
    plots = []
    for number, (label, sizes) in enumerate(rows.items()):
        middle = 0.2 - 0.4 * number
        script += f"$d{number} << EOD\n"
        for row, name in enumerate(names):
            at = len(names) - 1 - row + middle
            script += f"{sizes[name] / 2} {at} 0 {sizes[name]} {at - 0.17} {at + 0.17}\n"
        script += "EOD\n"
        for row, name in enumerate(names):
            script += (f"set label '{sizes[name]:.1f}' at {sizes[name]}, {len(names) - 1 - row + middle} "
                       f"left offset 0.6,0 tc rgb '{INK[0]}' font ',13'\n")
        script += (f"set label '{label}' at graph {0.02 + 0.45 * number}, graph 0.96 left offset 1.5,0 "
                   f"tc rgb '{looks[number]}'\n"
                   f"set label '' at graph {0.02 + 0.45 * number}, graph 0.96 point pt 5 ps 1.2 "
                   f"lc rgb '{looks[number]}'\n")
        plots.append(f"$d{number} with boxxyerror lc rgb '{looks[number]}' notitle")
    return follow_the_scheme(gnuplot(script + "plot " + ", ".join(plots) + "\n"), title)


def pictures(results):
    tables, titles = results["tables"], dict(page.PICTURES)
    sizes = {"200 KiB": 0.195, "5 MiB": 5, "50 MiB": 50}
    for name, table, ways in (
            ("save", beside.SAVES[1],
             ("confsave", "contract library", "tar + sync", "git", "restic", "borg")),
            ("restore", beside.DAMAGED,
             ("confsave", "confsave, keep", "contract library", "tar", "tar + sync", "git", "restic",
              "borg"))):
        rows = tables[table]["rows"]
        yield name, lines(titles[name], rows, {label: sizes[label] for label in rows}, ways,
                          "size of the configuration")
    rows = tables[listing.BY_NUMBER[False]]["rows"]
    yield "list", lines(titles["list"], rows, {label: int(label.replace(",", "")) for label in rows},
                        ("confsave", "contract library", "contract library, default layout", "by hand",
                         "git", "restic", "borg"), "snapshots of 50 KiB in the store")
    stores = results["stores"]
    names = ("confsave", "confsave --if-changed", "tar", "borg", "restic", "git", "git, packed")
    title = stores["title"].replace("store", "Store", 1).replace(", in MB", "")
    yield "nights", bars(title, stores["rows"], names)


def main():
    results = json.loads(pathlib.Path(sys.argv[1]).read_text(encoding="utf-8"))
    out = pathlib.Path(sys.argv[2])
    out.mkdir(parents=True, exist_ok=True)
    for name, section in page.SECTIONS.items():
        (out / f"{name}.md").write_text("\n".join(section(results)).rstrip() + "\n", encoding="utf-8")
    for name, picture in pictures(results):
        (out / f"{name}.svg").write_text(picture, encoding="utf-8")


main()
