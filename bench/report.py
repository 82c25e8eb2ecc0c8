#!/usr/bin/env python3
"""Turns the figures of bench/run.py into the tables and plots of docs/performance.md.

Everything between the document's two marker lines is written anew; the rest is left alone.
"""

import argparse
import json
import pathlib
import re
import statistics

import matplotlib
matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402

OURS = "velahost"
BEGIN = "<!-- Written by scripts/bench from here -->"
END = "<!-- to here -->"
COLOURS = {"floor": "#7f7f7f", "poco": "#1f77b4", "std": "#8c564b", "boost": "#ff7f0e", "ace": "#2ca02c",
           "libuv": "#d62728", "libevent": "#9467bd", "zeromq": "#e377c2", "nng": "#bcbd22",
           "inih": "#17becf", "glib": "#aec7e8"}


class Ratio:
    """Ours to a contestant's, one for each round; below 1 we are ahead."""

    def __init__(self, ours, others):
        # A figure of 0 (a lateness, say) has no ratio: what is not worse counts as equal.
        self.all = [a / b if b else (1.0 if not a else float("inf")) for a, b in zip(ours, others)]
        self.median = statistics.median(self.all)
        self.low, self.high = min(self.all), max(self.all)

    def __str__(self):
        text = two_digits(self.median)
        if len(self.all) > 1:
            text += f" ({two_digits(self.low)}–{two_digits(self.high)})"
        return text


def two_digits(value):
    return f"{value:.2f}" if value < 10 else f"{value:.0f}"


def natural_order(text):
    return [int(part) if part.isdigit() else part for part in re.split(r"(\d+)", text)]


def load(path):
    """The report, and the ratios as {workload: {contestant: Ratio}}."""
    report = json.loads(path.read_text(encoding="ascii"))
    ratios = {}
    for workload in sorted(report["workloads"], key=natural_order):
        values = report["workloads"][workload]["values"]
        ratios[workload] = {other: Ratio(values[OURS], values[other])
                            for other in sorted(values, key=lambda name: (name != "floor", name))
                            if other != OURS and OURS in values}
    return report, {workload: others for workload, others in ratios.items() if others}


def verdict(limit, ratio):
    if ratio.median <= limit:
        return "reached"
    return "level" if ratio.low <= limit else "**missed**"


def compared(goal, report, ratios):
    """(ratio, workload, beside what) of everything that a goal is about."""
    if "growth" in goal:
        small, large = (sorted(name for name in report["workloads"] if re.search(size, name))
                        for size in goal["growth"])
        for before, after in zip(small, large):
            values = [report["workloads"][name]["values"][OURS] for name in (after, before)]
            yield Ratio(*values), after, f"`{before}`"
        return
    for workload, others in ratios.items():
        if re.search(goal["workloads"], workload):
            for other, ratio in others.items():
                if other in goal["against"]:
                    yield ratio, workload, other


def goal_rows(goals, report, ratios):
    """For each goal its worst workload, and how many reach it."""
    yield "| goal | worst | ours to theirs: median (range) | limit | reached |"
    yield "|---|---|---|---|---|"
    for goal in goals:
        pairs = list(compared(goal, report, ratios))
        if not pairs:
            continue
        ratio, workload, other = max(pairs, key=lambda pair: pair[0].median)
        verdicts = [verdict(goal["limit"], pair[0]) for pair in pairs]
        reached = f"{verdicts.count('reached')} of {len(pairs)}"
        if verdicts.count("level"):
            reached += f", {verdicts.count('level')} level"
        yield f"| {goal['goal']} | `{workload}`, {other} | {ratio} | {goal['limit']:.2f} | {reached} |"


def missed_rows(goals, report, ratios):
    rows = [f"| {goal['goal']} | `{workload}` | {other} | {ratio} | {goal['limit']:.2f} | {outcome} |"
            for goal in goals for ratio, workload, other in compared(goal, report, ratios)
            if (outcome := verdict(goal["limit"], ratio)) != "reached"]
    if rows:
        yield "| goal | workload | beside | ours to theirs | limit | |"
        yield "|---|---|---|---|---|---|"
        yield from rows
    else:
        yield "None."


def family_rows(report, ratios, family):
    workloads = [workload for workload in ratios if workload.split("/")[0] == family]
    others = sorted({other for workload in workloads for other in ratios[workload]},
                    key=lambda name: (name != "floor", name))
    with_values = family == "footprint"
    yield "| workload | " + ("libvelahost | " if with_values else "") + " | ".join(others) + " |"
    yield "|---" * (len(others) + 1 + with_values) + "|"
    for workload in workloads:
        cells = [str(ratios[workload].get(other, "")) for other in others]
        if with_values:
            result = report["workloads"][workload]
            cells.insert(0, f"{statistics.median(result['values'][OURS]):,.0f} {result['unit']}")
        yield f"| `{workload.partition('/')[2]}` | " + " | ".join(cells) + " |"


def plot(ratios, family, path):
    """How much of ours each contestant takes, one row of dots a workload, on a logarithmic axis."""
    workloads = [workload for workload in ratios if workload.split("/")[0] == family][::-1]
    figure, axes = plt.subplots(figsize=(9, 1.3 + 0.3 * len(workloads)))
    axes.axvline(1, color="black", linewidth=1.2)
    seen = set()
    for row, workload in enumerate(workloads):
        for other, ratio in ratios[workload].items():
            if not 0 < ratio.median < float("inf"):
                continue
            axes.plot([1 / ratio.high, 1 / max(ratio.low, 1e-9)], [row, row], color=COLOURS[other],
                      linewidth=1, alpha=0.5)
            axes.plot([1 / ratio.median], [row], marker="s" if other == "floor" else "o", linestyle="",
                      color=COLOURS[other], label=None if other in seen else other)
            seen.add(other)
    axes.set_xscale("log")
    axes.xaxis.set_major_formatter(matplotlib.ticker.FuncFormatter(lambda value, _: f"{value:g}×"))
    axes.set_yticks(range(len(workloads)), [workload.partition("/")[2] for workload in workloads],
                    fontsize=8)
    axes.set_ylim(-0.6, len(workloads) - 0.4)
    axes.grid(axis="x", which="both", linewidth=0.3)
    axes.set_xlabel("theirs to libvelahost's (line at 1×): right of the line libvelahost is ahead")
    axes.set_title(family)
    axes.legend(loc="center left", bbox_to_anchor=(1.01, 0.5), fontsize=8)
    figure.savefig(path, bbox_inches="tight", metadata={"Date": None})
    plt.close(figure)


def write(document, report, ratios, goals, plots):
    machine = report["machine"]
    versions = ", ".join(f"{name} {version}" for name, version in sorted(report["versions"].items())
                         if name.endswith("-dev"))
    lines = [
        f"{report['date']}: {machine['processor']}, {machine['processors']} processors, Linux "
        f"{machine['kernel']}; {machine['compiler']}, -O2 -m32; {report['rounds']} rounds. {versions}.",
        "", "### What must be reached", "",
        "Of each goal the workload that is furthest from it. Reached: the median is within the limit;"
        " level: it is not, but the range of the rounds reaches to the limit.",
        "", *goal_rows(goals, report, ratios),
        "", "Not reached:", "", *missed_rows(goals, report, ratios),
    ]
    families = list(dict.fromkeys(workload.split("/")[0] for workload in ratios))
    for family in families:
        plot(ratios, family, plots / f"{family}.svg")
        lines += ["", f"### {family}", "", f"![{family}]({plots.name}/{family}.svg)", "",
                  *family_rows(report, ratios, family)]
    text = document.read_text(encoding="utf-8")
    before, _, rest = text.partition(BEGIN)
    _, _, after = rest.partition(END)
    document.write_text(before + BEGIN + "\n\n" + "\n".join(lines) + "\n\n" + END + after,
                        encoding="utf-8")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("figures", type=pathlib.Path, help="what bench/run.py wrote")
    parser.add_argument("document", type=pathlib.Path)
    arguments = parser.parse_args()
    matplotlib.rcParams["svg.hashsalt"] = "velahost"
    matplotlib.rcParams["svg.fonttype"] = "none"
    goals = json.loads(pathlib.Path(__file__).with_name("goals.json").read_text(encoding="ascii"))
    report, ratios = load(arguments.figures)
    plots = arguments.document.with_suffix("")
    plots.mkdir(exist_ok=True)
    write(arguments.document, report, ratios, goals, plots)


if __name__ == "__main__":
    main()
