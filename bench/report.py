#!/usr/bin/python3
"""Writes performance.md and performance.svg from the results of one run of the benchmarks, or the
last sections of performance.md from those of a fleet and of a history.

  report.py RESULTS.json DIRECTORY
"""

import collections
import json
import pathlib
import platform
import statistics
import string
import subprocess
import sys

import matplotlib
from matplotlib import pyplot, ticker

WALK = "lock-step walk"
LINES = {  # of the plot: colour and style of each way
    WALK: ("#8a8f98", "--"),
    "this library": ("#1f8ef1", "-"),
    "serialise, compare bytes": ("#2ba84a", "-"),
    "plain definition": ("#e0533d", "-"),
    "JSON diff": ("#b068e0", "-"),
    "message diff": ("#d98a00", "-"),
}
SHAPES = ("flat", "fan-out 8", "chain")

Run = collections.namedtuple("Run", "topic row devices way")
Cost = collections.namedtuple("Cost", "microseconds ratio")  # the ratio is to the first way


def read(benchmarks):
    """For each Run its Cost, the median of all rounds."""
    rounds = collections.defaultdict(list)
    first_ways = {}
    for result in benchmarks:
        if result.get("error_occurred"):
            sys.exit(f"{result['name']}: {result['error_message']}")
        topic, row, devices, way = result["name"].split("/min_time")[0].split("/")
        run = Run(topic, row, int(devices), way)
        if way == first_ways.setdefault(run[:3], way):
            yardstick = result["cpu_time"]  # for those that come now
        rounds[run].append(Cost(result["cpu_time"], result["cpu_time"] / yardstick))
    return {run: Cost(*map(statistics.median, zip(*costs))) for run, costs in rounds.items()}


def number(value):
    """Three significant digits, at most two decimals."""
    if value >= 100:
        return f"{float(f'{value:.3g}'):,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def duration(microseconds):
    for unit, size in (("s", 1e6), ("ms", 1e3), ("µs", 1)):
        if microseconds >= size:
            return f"{microseconds / size:.3g} {unit}"
    return f"{microseconds * 1e3:.3g} ns"


def markdown(heads, rows):
    lines = [heads, ["---"] + ["--:"] * (len(heads) - 1)] + rows
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def table(costs, corner, label):
    """A row for each label that a run gets, a column for each size."""
    rows = collections.defaultdict(dict)
    for run, cost in costs.items():
        if label(run):
            text = f"**{number(cost.ratio)}** {duration(cost.microseconds)}"
            rows[label(run)][run.devices] = text
    sizes = sorted({size for row in rows.values() for size in row})
    lines = [[name] + [row.get(size, "–") for size in sizes] for name, row in rows.items()]
    return markdown([corner] + [f"{size:,}" for size in sizes], lines)


def tables(costs):
    def of(topic, corner, label):
        return table(costs, corner, lambda run: run.topic == topic and run.way != WALK and label(run))

    setting = "tree, memory"
    return {
        "comparison": of("comparison", f"{setting}: what changed", lambda run: run.row),
        "report": of("report", setting, lambda run: {
            "event applied": run.row, "deep copy": f"{run.row}: deep copy"}.get(run.way)),
        "received": of("report", setting, lambda run: run.way == "received event" and run.row),
        "rivals": "\n\n".join(
            of("rivals", shape, lambda run: run.row == shape and run.way) for shape in SHAPES),
        "repeated": of("repeated", "identifiers", lambda run: run.row),
        "messages": of("messages", "devices", lambda run: run.way),
        "operations": of("operations", "fan-out 8", lambda run: run.way),
    }


def figures(costs):
    """The ratios that the prose states."""
    def ratios(topic, way):
        return [c.ratio for run, c in costs.items() if (run.topic, run.way) == (topic, way)]

    comparisons = ratios("comparison", "this library")
    reports = ratios("report", "event applied")
    copies = ratios("report", "deep copy")
    return {
        "comparison_least": number(min(comparisons)),
        "comparison_median": number(statistics.median(comparisons)),
        "comparison_most": number(max(comparisons)),
        "report_least": number(min(reports)),
        "report_median": number(statistics.median(reports)),
        "report_most": number(max(reports)),
        "copy_least": number(min(copies)),
        "copy_most": number(max(copies)),
        "received_most": number(max(ratios("report", "received event"))),
        "messages_most": number(max(c.ratio for run, c in costs.items() if run.topic == "messages")),
    }


def plot(costs, path):
    """A panel for each shape: the time of a report for each device, against their number."""
    matplotlib.rcParams.update({
        "font.size": 11, "svg.fonttype": "none", "svg.hashsalt": "performance"})
    figure, panels = pyplot.subplots(1, len(SHAPES), figsize=(11, 4.6), sharey=True)
    for panel, shape in zip(panels, SHAPES):
        for way, (colour, style) in LINES.items():
            points = sorted((run.devices, cost.microseconds * 1e-6 / run.devices)
                            for run, cost in costs.items()
                            if (run.topic, run.row, run.way) == ("rivals", shape, way))
            panel.loglog(*zip(*points), style, marker="o", color=colour, linewidth=2, label=way,
                         zorder=3 if way == "this library" else 2)
        panel.set_title(shape)
        panel.grid(color="#d0d7de")
        panel.xaxis.set_major_formatter(ticker.StrMethodFormatter("{x:,.0f}"))
        panel.yaxis.set_major_formatter(ticker.EngFormatter(unit="s"))
        panel.minorticks_off()
    panels[1].set_xlabel("devices in the tree")
    panels[0].set_ylabel("time for each device")
    figure.suptitle("What a report of one changed status costs for each device", fontweight="bold")
    figure.legend(*panels[0].get_legend_handles_labels(), loc="upper center", ncol=len(LINES),
                  bbox_to_anchor=(0.5, 0.94), frameon=False)
    figure.tight_layout(rect=(0, 0, 1, 0.92))
    figure.savefig(path, facecolor="white", metadata={"Date": None})


def compiler():
    """Name and version of the default C++ compiler."""
    line = subprocess.run(["c++", "--version"], capture_output=True, text=True, check=True).stdout
    words = line.splitlines()[0].split()
    return f"{words[0]} {words[-1]}".replace("c++", "g++")


def template(name):
    return string.Template(pathlib.Path(__file__).with_name(name).read_text())


def fleet(results):
    """The section about a fleet."""
    broker = results["broker"]
    rates = []
    for key, name in (("base", "1 % of all statuses"), ("highest", "the highest rate that holds"),
                      ("too_high", "a rate that does not hold")):
        if run := broker.get(key):
            rates.append([name, *(f"{run[count]:,.0f}" for count in ("rate", "events", "changes")),
                          *(duration(run[delay] * 1e3) for delay in ("median", "percentile")),
                          str(run["gaps"]), str(run["requests"])])
    growth = []
    for key, name in (("event", "an event"), ("state", "a state, for each root")):
        rounds = [costs[key] for costs in results["growth"]]
        few, many = map(statistics.median, zip(*rounds))
        ratio = statistics.median(many / few for few, many in rounds)
        growth.append([name, duration(few), duration(many), f"**{number(ratio)}**"])
    pages = results["pages"]
    return template("fleet.md.in").substitute(
        pages=pages["pages"],
        without=f"{pages['without'] * 100:.0f} %",
        with_pages=f"{pages['with'] * 100:.0f} %",
        news=f"{pages['news']:,.0f}",
        news_median=duration(pages["median"] * 1e3),
        news_percentile=duration(pages["percentile"] * 1e3),
        delay=duration(broker["base"]["percentile"] * 1e3),
        start=duration(broker["start"] * 1e6),
        root=f"{broker['root'] / 1e3:.0f} kB",
        collector=f"{broker['collector'] / 1e6:.0f} MB",
        reporter=f"{broker['reporter'] / 1e6:.0f} MB",
        rates=markdown(["each second", "events made", "arrived", "statuses", "median delay",
                        "99th percentile", "gaps", "requests"], rates),
        growth=markdown(["", "1,000 roots", "10,000 roots", "ratio"], growth))


def history(results):
    """The section about a history."""
    recording = []
    for devices, run in zip((100, 10), results["history"]):
        ratio = (run["recording"] - run["plain"]) / run["plain"]
        recording.append([f"{devices}", f"{run['bytes']:.0f}", duration(run["plain"]),
                          duration(run["recording"] - run["plain"]), f"**{number(ratio)}**",
                          f"**{number(run['disk'])}**"])
    restarts = [[f"{run['roots']:,} of {run['devices']}", f"{run['rate']:,.0f}",
                 "yes" if run["session"] else "no", duration(run["resumed"] * 1e6),
                 duration(run["current"] * 1e6), f"{run['asked']:,}", f"{run['whole']:,}"]
                for run in results["restarts"]]
    return template("history.md.in").substitute(
        cost=recording[0][4].strip("*"),
        disk=recording[0][5].strip("*"),
        median=duration(results["trees"]["median"]),
        percentile=duration(results["trees"]["percentile"]),
        roots=f"{results['resume']['roots']:,}",
        resume=duration(results["resume"]["time"]),
        recording=markdown(["devices of a root", "bytes of an event", "an event", "to record it",
                            "ratio", "on the disk"], recording),
        restarts=markdown(["roots, of devices", "events a second", "session", "trees read",
                           "all current", "asked for", "whole"], restarts))


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__.strip())
    results = json.loads(pathlib.Path(sys.argv[1]).read_text())
    directory = pathlib.Path(sys.argv[2])
    page = directory / "performance.md"
    if "growth" in results or "restarts" in results:
        section = fleet(results) if "growth" in results else history(results)
        others = page.read_text().partition(section.splitlines()[0])[0]
        page.write_text(f"{others.rstrip()}\n\n{section}")
        return
    costs = read(results["benchmarks"])
    machine = f"{results['context']['num_cpus']} cores, {platform.machine()}, {compiler()}"
    directory.mkdir(parents=True, exist_ok=True)
    page.write_text(template("performance.md.in").substitute(
        machine=machine, **tables(costs), **figures(costs)))
    plot(costs, directory / "performance.svg")


if __name__ == "__main__":
    main()
