#!/usr/bin/env python3
"""Writes performance.md and performance.svg from the results of one run of the benchmarks.

  report.py RESULTS.json DIRECTORY
"""

import collections
import json
import math
import pathlib
import platform
import statistics
import subprocess
import sys

YARDSTICK = "lock-step walk"
WAYS = {  # of the plot, in the order of the legend: label, colour, dashes
    YARDSTICK: ("lock-step walk", "#8a8f98", "6 4"),
    "library": ("this library", "#1f8ef1", ""),
    "bytes": ("serialise, compare bytes", "#2ba84a", ""),
    "steps as written": ("steps as written", "#e0533d", ""),
    "JSON diff": ("JSON diff", "#b068e0", ""),
    "message diff": ("message diff", "#d98a00", ""),
}
SHAPES = ("flat", "fan-out 8", "chain")

Key = collections.namedtuple("Key", "topic shape memory devices change")
Cost = collections.namedtuple("Cost", "microseconds ratio")  # the ratio is to the yardstick


def read(path):
    """For each key and way the Cost of each round."""
    runs = collections.defaultdict(lambda: collections.defaultdict(list))
    for run in json.loads(pathlib.Path(path).read_text())["benchmarks"]:
        if run.get("error_occurred"):
            sys.exit(f"{run['name']}: {run['error_message']}")
        topic, shape, memory, devices, change, way = run["name"].split("/min_time")[0].split("/")
        if way == YARDSTICK:
            yardstick = run["cpu_time"]  # it opens the round
        cost = Cost(run["cpu_time"], run["cpu_time"] / yardstick)
        runs[Key(topic, shape, memory, int(devices), change)][way].append(cost)
    return runs


def ratio(runs, key, way):
    return statistics.median(cost.ratio for cost in runs[key][way])


def time(runs, key, way):
    return statistics.median(cost.microseconds for cost in runs[key][way])


def cell(runs, key, way):
    return f"**{number(ratio(runs, key, way))}** {duration(time(runs, key, way))}"


def number(value):
    """Three significant digits, at most two decimals."""
    if value >= 100:
        return f"{float(f'{value:.3g}'):,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def duration(microseconds):
    for unit, size in (("s", 1e6), ("ms", 1e3)):
        if microseconds >= size:
            return f"{microseconds / size:.3g} {unit}"
    return f"{microseconds:.3g} µs"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |"]
    lines.append("|" + "|".join("---" if i == 0 else "--:" for i in range(len(header))) + "|")
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def size_header(sizes):
    return [f"{size:,}" for size in sizes]


def comparison_table(runs, sizes):
    rows = []
    settings = dict.fromkeys(
        (key.shape, key.memory, key.change) for key in runs if key.topic == "comparison"
    )
    for shape, memory, change in settings:
        keys = [Key("comparison", shape, memory, size, change) for size in sizes]
        rows.append(
            [f"{shape}, {memory}: {change}"]
            + [cell(runs, key, "library") for key in keys]
        )
    return table(["tree, memory: what changed"] + size_header(sizes), rows)


def ways_table(runs, topic, shape, change=None):
    keys = [
        key for key in runs
        if key.topic == topic and key.shape == shape and change in (None, key.change)
    ]
    sizes = sorted({key.devices for key in keys})
    ways = dict.fromkeys(way for key in keys for way in runs[key] if way != YARDSTICK)
    rows = []
    for way in ways:
        cells = []
        for size in sizes:
            found = [k for k in keys if k.devices == size and way in runs[k]]
            cells.append(cell(runs, found[0], way) if found else "–")
        rows.append([WAYS.get(way, (way,))[0]] + cells)
    return table([shape] + size_header(sizes), rows)


def repeated_table(runs):
    sizes = sorted({key.devices for key in runs if key.topic == "repeated"})
    names = {
        "harmless": "the units of every rack are called alike",
        "harmful": "so is one sub-device of the root",
    }
    rows = []
    for shape, name in names.items():
        keys = [Key("repeated", shape, "walk order", size, "one status") for size in sizes]
        rows.append(
            [name]
            + [cell(runs, key, "library") for key in keys]
        )
    return table(["identifiers"] + size_header(sizes), rows)


def plot(runs):
    """Three panels side by side, one for each shape: cost per device against number of devices."""
    keys = [key for key in runs if key.topic == "rivals"]
    sizes = sorted({key.devices for key in keys})
    costs = {
        (key.shape, way, key.devices): time(runs, key, way) * 1000 / key.devices
        for key in keys for way in runs[key] if way in WAYS
    }
    low = math.floor(math.log10(min(costs.values())))
    high = math.ceil(math.log10(max(costs.values())))
    width, height, left, top, gap = 290, 300, 78, 92, 26
    total_width, total_height = left + 3 * width + 2 * gap + 22, top + height + 62

    def y_of(cost):
        return top + height * (high - math.log10(cost)) / (high - low)

    out = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {total_width} {total_height}"'
        f' width="{total_width}" height="{total_height}" role="img"'
        ' font-family="system-ui, sans-serif" font-size="13">',
        "<title>Cost of a comparison for each device, against the number of devices</title>",
        "<style>text{fill:#24292f}.grid{stroke:#d0d7de}.page{fill:#ffffff}"
        "@media(prefers-color-scheme:dark){text{fill:#e6edf3}.grid{stroke:#30363d}"
        ".page{fill:#0d1117}}</style>",
        f'<rect class="page" width="{total_width}" height="{total_height}" rx="8"/>',
        f'<text x="{left}" y="26" font-size="16" font-weight="600">What a comparison costs for each'
        " device: one status changed</text>",
    ]
    x = left
    for label, colour, dashes in WAYS.values():
        out.append(
            f'<line x1="{x}" y1="49" x2="{x + 24}" y2="49" stroke="{colour}" stroke-width="3"'
            f' stroke-dasharray="{dashes}"/><text x="{x + 30}" y="53">{label}</text>'
        )
        x += 58 + 7 * len(label)
    for panel, shape in enumerate(SHAPES):
        x0 = left + panel * (width + gap)

        def x_of(size, x0=x0):
            span = math.log10(sizes[-1]) - math.log10(sizes[0])
            return x0 + 14 + (width - 28) * (math.log10(size) - math.log10(sizes[0])) / span

        out.append(f'<text x="{x0 + width / 2}" y="{top - 10}" text-anchor="middle"'
                   f' font-weight="600">{shape}</text>')
        for exponent in range(low, high + 1):
            y = y_of(10**exponent)
            out.append(f'<line class="grid" x1="{x0}" y1="{y:.1f}" x2="{x0 + width}" y2="{y:.1f}"/>')
            if panel == 0:
                out.append(f'<text x="{x0 - 8}" y="{y + 4:.1f}" text-anchor="end">'
                           f"{duration(10**exponent / 1000) if exponent >= 3 else f'{10**exponent} ns'}"
                           "</text>")
        for size in sizes:
            x = x_of(size)
            out.append(f'<line class="grid" x1="{x:.1f}" y1="{top}" x2="{x:.1f}" y2="{top + height}"/>')
            out.append(f'<text x="{x:.1f}" y="{top + height + 20}" text-anchor="middle">{size:,}</text>')
        for way, (_, colour, dashes) in reversed(WAYS.items()):
            points = [(x_of(s), y_of(costs[shape, way, s])) for s in sizes if (shape, way, s) in costs]
            path = " ".join(f"{px:.1f},{py:.1f}" for px, py in points)
            out.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2.5"'
                       f' stroke-linejoin="round" stroke-dasharray="{dashes}"/>')
            out += [f'<circle cx="{px:.1f}" cy="{py:.1f}" r="3.5" fill="{colour}"/>'
                    for px, py in points]
    middle = left + (3 * width + 2 * gap) / 2
    out.append(f'<text x="{middle}" y="{top + height + 48}" text-anchor="middle">devices in the'
               " tree</text>")
    centre = top + height / 2
    out.append(f'<text x="18" y="{centre}" text-anchor="middle" transform="rotate(-90 18 {centre})">'
               "time for each device</text>")
    out.append("</svg>\n")
    return "\n".join(out)


def compiler():
    """Name and version of the default C++ compiler."""
    line = subprocess.run(["c++", "--version"], capture_output=True, text=True, check=True).stdout
    first = line.splitlines()[0]
    return f"{first.split()[0]} {first.split()[-1]}".replace("c++", "g++")


def page(runs, cores):
    sizes = sorted({key.devices for key in runs if key.topic == "comparison"})
    ratios = [ratio(runs, key, "library") for key in runs if key.topic == "comparison"]
    worst = max(
        ratio(runs, key, "library") for key in runs
        if key.topic == "comparison" and key.change in ("nothing", "one status")
    )
    return f"""# What it costs

Written by `./scripts/bench.sh`; the measurements are in `bench/`. Every figure in bold is a ratio:
the time of this way divided by the time of a hand-written walk over both trees in lock-step
(`bench/LockStep.h`), taken in turn with it, in the same process, on the same trees. It is the median
of several rounds, and each round builds its trees anew, as where they come to lie in memory can alone
double what a walk costs. The time beside it is what one call took here ({cores} cores,
{platform.machine()}, {compiler()}, Release) and no promise.

Each device has 4 properties and 8 statuses of mixed types.

![Cost of a comparison for each device](performance.svg)

## Comparing, against the lock-step walk

From {min(ratios):.2f} to {max(ratios):.2f} times the walk, {statistics.median(ratios):.2f} in the middle; at most {worst:.2f} where nothing or one status
changed.

Measured is `EventHelper::ComputeEvent` with a message that the caller keeps, and
`IsSameConfiguration` where a property changed. The walk decides as much, and lists the changes,
but writes no message and trusts that identifiers do not repeat. In scattered memory the devices
were allocated in a random order, so that each step of the walk jumps.

{comparison_table(runs, sizes)}

## Other ways to compare

One status changed; memory in walk order. A way that needs a form of its own keeps the snapshot in
that form. Measured is to bring the live tree into it and to compare; "alone" leaves the first out.

- *steps as written*: the definition of the comparison, carried out literally (`tests/PlainDefinition.h`)
- *message diff*: `google::protobuf::util::MessageDifferencer`, the lists keyed by identifier and
  name, the differences reported to a string
- *JSON diff*: `nlohmann::json::diff`
- *serialise, compare bytes*: deterministic bytes of the message; says that something changed, not what

{ways_table(runs, "rivals", "flat")}

{ways_table(runs, "rivals", "fan-out 8")}

{ways_table(runs, "rivals", "chain")}

A dash: not measured. All but the library and the walk recurse once for each level, so long chains
are left out before they overflow the stack or the memory; the steps as written search all
sub-devices of a device for each of them, so the largest flat tree is left out as well.

## Identifiers that repeat

Racks of 8 units, one status changed. Units that are called alike in every rack keep the trees in
step. A sub-device of the root that is called like a unit does not: its identifier stands for the
unit, and both trees are indexed.

{repeated_table(runs)}

## Everything else, in walks

The other operations in units of the lock-step walk over the same trees. A message that is kept from
call to call saves most of what a fresh one costs.

{ways_table(runs, "operations", "fan-out 8")}
"""


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__.strip())
    results, directory = sys.argv[1], pathlib.Path(sys.argv[2])
    runs = read(results)
    cores = json.loads(pathlib.Path(results).read_text())["context"]["num_cpus"]
    directory.mkdir(parents=True, exist_ok=True)
    (directory / "performance.svg").write_text(plot(runs), encoding="utf-8")
    (directory / "performance.md").write_text(page(runs, cores), encoding="utf-8")


if __name__ == "__main__":
    main()
