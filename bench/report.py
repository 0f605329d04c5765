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


def rates(pair):
    """The rows of roots of one size."""
    runs = [("a bare pair, the highest rate that holds", pair["bare"]["highest"]),
            ("1,000 events a second", pair["base"]),
            ("the highest rate that holds", pair["highest"]),
            ("a rate that does not hold", pair["too_high"]),
            ("half of the highest rate", pair["half"])]
    bare = pair["bare"]["highest"]["rate"]
    return [[f"{pair['devices']}: {name}", f"{run['rate']:,.0f}", f"{run['events']:,.0f}",
             f"**{number(run['rate'] / bare)}**", duration(run["median"] * 1e3),
             duration(run["percentile"] * 1e3), str(run["gaps"]), str(run["requests"])]
            for name, run in runs]


def starts(fleets):
    """A row for each fleet, and the ratio of each."""
    rows = []
    ratios = []
    for run in fleets:
        counted, built, collector = map(statistics.median, zip(*run["rounds"]))
        ratios.append(number(statistics.median(ours / theirs for _, theirs, ours in run["rounds"])))
        forgotten = ["–", "–"]
        if again := run.get("forgotten"):
            forgotten = [f"**{number(again[who] / built)}** {duration(again[who] * 1e6)}"
                         for who in ("old", "newcomer")]
        rows.append([f"{run['roots']:,} of {run['devices']}, {run['reporters']}",
                     duration(counted * 1e6), duration(built * 1e6),
                     f"**{ratios[-1]}** {duration(collector * 1e6)}", *forgotten])
    heads = ["roots of devices, reporters", "client that counts", "that builds", "collector",
             "broker forgot: was there", "starts"]
    return markdown(heads, rows), ratios


def fleet(results):
    """The section about a fleet."""
    large, small = results["rates"]
    costs = []
    for pair in (large, small):
        for name, run in (("bare", pair["bare"]["highest"]), ("ours", pair["highest"])):
            costs.append([f"{pair['devices']}: {name}", *map(duration, run["cost"])])
    fleets, ratios = starts(results["starts"])
    losses = [loss for run in results["starts"] for loss in run.get("losses", [])]
    crowd = results["crowd"]
    few, many = map(statistics.median, zip(*crowd["events"]))

    def heartbeat(key):
        return statistics.median(run[key] for run in crowd["heartbeats"])

    steps = [[name, *map(duration, crowd["steps"][key])] for key, name in (
        ("start", "start, all trees are new"), ("events", "events"),
        ("heartbeats", "nothing comes or goes"), ("removal", "1 % of the roots go"),
        ("reporter_again", "the reporter connects again"),
        ("collector_again", "the collector connects again"))]
    pages = results["pages"]
    return template("fleet.md.in").substitute(
        pages=pages["pages"],
        without=f"{pages['without'] * 100:.0f} %",
        with_pages=f"{pages['with'] * 100:.0f} %",
        news=f"{pages['news']:,.0f}",
        news_median=duration(pages["median"] * 1e3),
        news_percentile=duration(pages["percentile"] * 1e3),
        delay=duration(large["base"]["percentile"] * 1e3),
        step=f"{max(p['too_high']['rate'] / p['highest']['rate'] for p in (large, small)) * 100 - 100:.0f} %",
        start=duration(large["start"] * 1e6),
        root=f"{large['root'] / 1e3:.0f} kB",
        collector=f"{large['collector'] / 1e6:.0f} MB",
        reporter=f"{large['reporter'] / 1e6:.0f} MB",
        memory=number(large["reporter"] / large["trees"]),
        rates=markdown(["devices of a root", "events made a second", "arrived", "of the bare pair",
                        "median delay", "99th percentile", "gaps", "requests"],
                       rates(large) + rates(small)),
        costs=markdown(["devices of a root", "sender", "broker", "receiver"], costs),
        starts=fleets,
        start_ratios=" to ".join(sorted({min(ratios, key=float), max(ratios, key=float)},
                                        key=float)),
        lost_bytes=f"{statistics.median(loss['bytes'] for loss in losses):.0f}",
        repair=duration(statistics.median(loss["since_noticed"] for loss in losses) * 1e6),
        repair_most=duration(max(loss["since_noticed"] for loss in losses) * 1e6),
        repair_bytes=number(statistics.median(
            loss["repair_bytes"] / loss["bytes"] for loss in losses)),
        losses=len(losses),
        roots=f"{crowd['roots']:,}",
        crowd_devices=crowd["devices"],
        others=f"{crowd['others']:,}",
        many_event=duration(many),
        few_event=duration(few),
        event_ratio=number(statistics.median(most / least for least, most in crowd["events"])),
        heartbeat_bytes=f"{heartbeat('bytes'):,.0f} bytes",
        heartbeat_collector=duration(heartbeat("collector")),
        heartbeat_reporter=duration(heartbeat("reporter")),
        steps=markdown(["", "reporters", "collector"], steps))


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
    if "rates" in results or "restarts" in results:
        section = fleet(results) if "rates" in results else history(results)
        before, _, after = page.read_text().partition(section.splitlines()[0])
        _, next_heading, others = after.partition("\n## ")
        page.write_text(f"{before.rstrip()}\n\n{section}{next_heading}{others}")
        return
    costs = read(results["benchmarks"])
    machine = f"{results['context']['num_cpus']} cores, {platform.machine()}, {compiler()}"
    directory.mkdir(parents=True, exist_ok=True)
    page.write_text(template("performance.md.in").substitute(
        machine=machine, **tables(costs), **figures(costs)))
    plot(costs, directory / "performance.svg")


if __name__ == "__main__":
    main()
